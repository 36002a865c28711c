#include "environment.h"

#include <QtCore/QStringList>

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace trelanbusd
{

namespace
{

// Descriptors for the log, signals, event loops and the disk, with room for what Qt and SQLite open
// for a moment.
constexpr rlim_t OWN_DESCRIPTORS = 64;

QStringList takeNames(char **names)
{
    QStringList list;
    for (char **name = names; name && *name; ++name) {
        list.append(QString::fromLocal8Bit(*name));
        std::free(*name);
    }
    std::free(names);
    return list;
}

} // namespace

QString takeSockets(bus::TrelanBusSettings &settings)
{
    char **rawNames = nullptr;
    const int count = sd_listen_fds_with_names(1, &rawNames);
    const QStringList names = takeNames(rawNames);
    if (count == 0)
        return {};
    if (count < 0)
        return QStringLiteral("cannot take the sockets of the service manager: %1")
            .arg(QString::fromLocal8Bit(std::strerror(-count)));
    if (count != 2)
        return QStringLiteral("the service manager has to hand over two sockets, for the query and "
                              "the message channel, and it is %1")
            .arg(count);
    const bool swapped =
        names.value(0) == QLatin1String("messages") || names.value(1) == QLatin1String("query");
    settings.setQueryDescriptor(SD_LISTEN_FDS_START + (swapped ? 1 : 0));
    settings.setMsgDescriptor(SD_LISTEN_FDS_START + (swapped ? 0 : 1));
    return {};
}

QString raiseDescriptorLimit(int connections)
{
    const rlim_t needed = rlim_t(connections) + OWN_DESCRIPTORS;
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed)
        return {};
    limit.rlim_cur = std::min(needed, limit.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur == needed)
        return {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return QStringLiteral("%1 connections need %2 descriptors, and the limit is %3: those beyond "
                          "it will wait (ulimit -n, LimitNOFILE=)")
        .arg(connections)
        .arg(needed)
        .arg(limit.rlim_cur);
}

bool logsToJournal()
{
    const QList<QByteArray> stream = qgetenv("JOURNAL_STREAM").split(':');
    struct stat error = {};
    return stream.size() == 2 && ::fstat(STDERR_FILENO, &error) == 0 &&
           stream[0].toULongLong() == error.st_dev && stream[1].toULongLong() == error.st_ino;
}

} // namespace trelanbusd
