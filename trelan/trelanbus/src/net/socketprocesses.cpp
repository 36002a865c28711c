#include "net/socketprocesses.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <memory>

namespace bus
{

namespace
{

constexpr qint64 MOST_MS = 50;
const QByteArray SOCKET_PREFIX = QByteArrayLiteral("socket:[");

struct CloseFolder
{
    void operator()(DIR *folder) const { ::closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

QByteArray target(const QByteArray &link)
{
    std::array<char, 512> room {};
    const ssize_t size = ::readlink(link.constData(), room.data(), room.size());
    return {room.data(), int(qMax<ssize_t>(size, 0))};
}

QString programOf(const QByteArray &process)
{
    const QByteArray path = target(process + "/exe");
    if (!path.isEmpty())
        return QFile::decodeName(path.mid(path.lastIndexOf('/') + 1));
    QFile name(QFile::decodeName(process + "/comm"));
    return name.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(name.readAll().trimmed())
                                          : QString();
}

/// The inodes of the sockets of a process that are looked for.
QSet<quint64> socketsOf(const QByteArray &process, const QSet<quint64> &wanted,
                        const QElapsedTimer &time)
{
    QSet<quint64> found;
    const QByteArray path = process + "/fd/";
    const Folder folder(::opendir(path.constData()));
    while (const dirent *entry = folder ? ::readdir(folder.get()) : nullptr) {
        if (time.hasExpired(MOST_MS))
            break;
        const QByteArray link = target(path + entry->d_name);
        if (!link.startsWith(SOCKET_PREFIX))
            continue;
        const quint64 inode = link.mid(SOCKET_PREFIX.size()).chopped(1).toULongLong();
        if (wanted.contains(inode))
            found.insert(inode);
    }
    return found;
}

} // namespace

QHash<quint64, SocketProcess> processesOf(const QSet<quint64> &sockets)
{
    QHash<quint64, SocketProcess> processes;
    QElapsedTimer time;
    time.start();
    const Folder folder(::opendir("/proc"));
    while (const dirent *entry = folder ? ::readdir(folder.get()) : nullptr) {
        if (processes.size() == sockets.size() || time.hasExpired(MOST_MS))
            break;
        const int id = QByteArray(entry->d_name).toInt();
        const QByteArray path = QByteArray("/proc/") + entry->d_name;
        for (const quint64 inode : id > 0 ? socketsOf(path, sockets, time) : QSet<quint64>()) {
            if (!processes.contains(inode)) // a process shares sockets with what it has started
                processes.insert(inode, {id, programOf(path)});
        }
    }
    return processes;
}

} // namespace bus
