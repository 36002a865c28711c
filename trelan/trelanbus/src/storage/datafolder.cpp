#include "storage/datafolder.h"

#include "values/buslog.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace bus::datafolder
{

namespace
{

constexpr mode_t FOLDER_MODE = 0700;
constexpr mode_t FILE_MODE = 0600;
constexpr mode_t OF_OTHERS = 0077;
constexpr mode_t ALL_MODES = 07777;

bool make(const QString &folder)
{
    const QByteArray path = QFile::encodeName(folder);
    return QDir().mkpath(QFileInfo(folder).path()) &&
           (::mkdir(path.constData(), FOLDER_MODE) == 0 || QFileInfo(folder).isDir());
}

/// "/srv/bus, of user 0 and with mode 0755"
QString described(const QString &path, const struct stat &status)
{
    return QStringLiteral("%1, of user %2 and with mode 0%3,")
        .arg(path)
        .arg(status.st_uid)
        .arg(status.st_mode & ALL_MODES, 0, 8);
}

/// Takes the rights of others off a path that exists.
QString close(const QString &path, mode_t mode)
{
    const QByteArray encoded = QFile::encodeName(path);
    struct stat status = {};
    if (::stat(encoded.constData(), &status) != 0 || (status.st_mode & OF_OTHERS) == 0)
        return {};
    if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) // such as a device, which all share
        return QStringLiteral("%1 is neither a folder nor a file").arg(path);
    const QString open = described(path, status);
    if (status.st_uid != ::geteuid())
        return QStringLiteral("%1 is open to others, and only its user can close it").arg(open);
    if (::chmod(encoded.constData(), mode) != 0)
        return QStringLiteral("%1 cannot be closed to others: %2")
            .arg(open, qt_error_string(errno));
    qCWarning(BUS_LOG).noquote()
        << QStringLiteral("%1 was open to others and has mode 0%2 now").arg(open).arg(mode, 0, 8);
    return {};
}

/// A file in the folder that is none of the database's; empty if there is none.
QString foreignFile(const QString &folder, const QString &database)
{
    const QStringList files = QDir(folder).entryList(QDir::AllEntries | QDir::Hidden |
                                                     QDir::System | QDir::NoDotAndDotDot);
    for (const QString &file : files) {
        if (file != database && !file.startsWith(database + QLatin1Char('-')))
            return file;
    }
    return {};
}

QString closeFolder(const QString &folder, const QString &database)
{
    struct stat status = {};
    const QString foreign = foreignFile(folder, database);
    if (!foreign.isEmpty() && ::stat(QFile::encodeName(folder).constData(), &status) == 0 &&
        (status.st_mode & OF_OTHERS) != 0) {
        return QStringLiteral("%1 is open to others and holds other files, such as %2: it takes a "
                              "folder of its own, or one with mode 0700")
            .arg(described(folder, status), foreign);
    }
    return close(folder, FOLDER_MODE);
}

} // namespace

QString prepare(const QString &folder, const QString &database)
{
    if (!QFileInfo(folder).isDir() && !make(folder))
        return QStringLiteral("the folder cannot be made");
    QString fault = closeFolder(folder, database);
    for (const char *suffix : {"", "-wal", "-shm", "-journal"}) {
        if (fault.isEmpty())
            fault = close(QDir(folder).filePath(database + QLatin1String(suffix)), FILE_MODE);
    }
    return fault;
}

void makeFile(const QString &path)
{
    // SQLite would apply the mask of the process to 0644. A file that is there is not opened:
    // closing it would give up the locks that a bus in this process has on it.
    const int made = ::open(QFile::encodeName(path).constData(),
                            O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE);
    if (made >= 0)
        ::close(made);
}

} // namespace bus::datafolder
