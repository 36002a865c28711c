#pragma once

#include <QtCore/QHash>
#include <QtCore/QSet>
#include <QtCore/QString>

namespace bus
{

/// A process, for people. Nothing is decided by it: the process may have handed its socket on.
struct SocketProcess
{
    int id = 0;
    QString program; ///< without its folder; empty if the system does not tell it
};

/// Which processes have the sockets with these inodes, as far as this process may see them. Looks
/// for some tens of milliseconds at most, and may be called from any thread.
QHash<quint64, SocketProcess> processesOf(const QSet<quint64> &sockets);

} // namespace bus
