#pragma once

#include "busoutput.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

#include <functional>
#include <memory>

namespace bus
{

/// \brief Watches the descriptors of all connections, and is one descriptor to the event loop.
///
/// The event loop goes through all that it has on each of its turns, which the bus would pay for
/// with every request: here it has one, however many clients there are.
///
/// It tells ids, not descriptors or pointers: whoever handles one event may end any connection, and
/// what was found of that one means nothing to anybody then. A connection that stays ready is told
/// of again. One thread.
class BusPoller : public QObject
{
public:
    /// Called with what is ready, in the bits of epoll.
    using Handler = std::function<void(ConnectionId id, quint32 events)>;

    explicit BusPoller(Handler handler);
    ~BusPoller() override;

    /// False, with errno, if the system has no descriptor left. To be called first.
    bool open();

    /// False, with errno, if the system has no room for it.
    bool watch(int descriptor, ConnectionId id, quint32 events) const;
    void change(int descriptor, ConnectionId id, quint32 events) const;
    /// Before the descriptor is closed.
    void forget(int descriptor) const;

    /// Room for what is read in one go, by whoever reads.
    QByteArray &buffer();

private:
    void takeTurn();

    const Handler _handler;
    int _descriptor = -1;
    std::unique_ptr<QSocketNotifier> _arrival;
    QByteArray _buffer;
};

} // namespace bus
