#pragma once

#include <QtCore/QtGlobal>

#include <sys/epoll.h>

#include <array>

namespace bus
{

/// \brief Waits for any of many descriptors at once, however many there are.
///
/// It tells tokens, not descriptors or pointers: whoever handles one event may end any connection,
/// and what was found of that one means nothing to anybody then. What stays ready is told of again.
/// One thread.
class BusPoller
{
public:
    // At once. Those beyond come before these the next time, and timers and other threads in
    // between.
    static constexpr int MAX_EVENTS = 64;
    using Events = std::array<epoll_event, MAX_EVENTS>;

    BusPoller() = default;
    ~BusPoller();
    Q_DISABLE_COPY(BusPoller)

    /// False, with errno, if the system has no descriptor left. To be called first.
    bool open();

    /// False, with errno, if the system has no room for it. \a events in the bits of epoll.
    bool watch(int descriptor, quint64 token, quint32 events) const;
    void change(int descriptor, quint64 token, quint32 events) const;
    /// Before the descriptor is closed.
    void forget(int descriptor) const;

    /// How many are ready; zero after \a milliseconds, which are endless below zero, or a signal.
    int wait(Events &events, int milliseconds) const;

private:
    int _descriptor = -1;
};

} // namespace bus
