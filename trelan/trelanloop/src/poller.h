#pragma once

#include <QtCore/QtGlobal>

#include <sys/epoll.h>

#include <array>

namespace bus
{

/// \brief Waits for many descriptors at once, at a cost that does not grow with their number.
///
/// Events carry tokens instead of descriptors or pointers: the handler of one event may end any
/// connection, and a token of an ended connection belongs to nobody. A descriptor that stays ready
/// is reported again. One thread.
class Poller
{
public:
    // Reported at once. Other events are reported first the next time, after timers and other
    // threads had their turn.
    static constexpr int MAX_EVENTS = 64;
    using Events = std::array<epoll_event, MAX_EVENTS>;

    Poller() = default;
    ~Poller();
    Q_DISABLE_COPY(Poller)

    /// False, with errno, if the system has no descriptor left. To be called first.
    bool open();

    /// Reports \a events, in the bits of epoll. False, with errno, if the system has no room.
    bool watch(int descriptor, quint64 token, quint32 events) const;
    void change(int descriptor, quint64 token, quint32 events) const;
    /// To be called before the descriptor is closed.
    void forget(int descriptor) const;

    /// Returns how many events there are: none after a signal, or after \a milliseconds, of which
    /// less than zero means endless.
    int wait(Events &events, int milliseconds) const;

private:
    int _descriptor = -1;
};

} // namespace bus
