#include "buspoller.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace bus
{

namespace
{

constexpr int BUFFER = 64 * 1024;
// At once. Those beyond come before these the next time, and timers and other threads in between.
constexpr int MAX_EVENTS = 64;

} // namespace

BusPoller::BusPoller(Handler handler)
    : _handler(std::move(handler))
    , _buffer(BUFFER, Qt::Uninitialized)
{}

BusPoller::~BusPoller()
{
    _arrival.reset();
    if (_descriptor >= 0)
        ::close(_descriptor);
}

bool BusPoller::open()
{
    _descriptor = ::epoll_create1(EPOLL_CLOEXEC);
    if (_descriptor < 0)
        return false;
    _arrival = std::make_unique<QSocketNotifier>(_descriptor, QSocketNotifier::Read);
    connect(_arrival.get(), &QSocketNotifier::activated, this, &BusPoller::takeTurn);
    return true;
}

bool BusPoller::watch(int descriptor, ConnectionId id, quint32 events) const
{
    epoll_event event {events, {}};
    event.data.u64 = id;
    return ::epoll_ctl(_descriptor, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void BusPoller::change(int descriptor, ConnectionId id, quint32 events) const
{
    epoll_event event {events, {}};
    event.data.u64 = id;
    ::epoll_ctl(_descriptor, EPOLL_CTL_MOD, descriptor, &event);
}

/// Closing alone would not do while a child process has the descriptor, too.
void BusPoller::forget(int descriptor) const
{
    ::epoll_ctl(_descriptor, EPOLL_CTL_DEL, descriptor, nullptr);
}

QByteArray &BusPoller::buffer()
{
    return _buffer;
}

void BusPoller::takeTurn()
{
    std::array<epoll_event, MAX_EVENTS> events {};
    const int count = ::epoll_wait(_descriptor, events.data(), MAX_EVENTS, 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event &event = events.at(size_t(i));
        _handler(event.data.u64, event.events);
    }
}

} // namespace bus
