#include "poller.h"

#include <unistd.h>

namespace bus
{

Poller::~Poller()
{
    if (_descriptor >= 0)
        ::close(_descriptor);
}

bool Poller::open()
{
    _descriptor = ::epoll_create1(EPOLL_CLOEXEC);
    return _descriptor >= 0;
}

bool Poller::watch(int descriptor, quint64 token, quint32 events) const
{
    epoll_event event {events, {}};
    event.data.u64 = token;
    return ::epoll_ctl(_descriptor, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void Poller::change(int descriptor, quint64 token, quint32 events) const
{
    epoll_event event {events, {}};
    event.data.u64 = token;
    ::epoll_ctl(_descriptor, EPOLL_CTL_MOD, descriptor, &event);
}

/// Closing alone is not enough while a child process has a copy of the descriptor.
void Poller::forget(int descriptor) const
{
    ::epoll_ctl(_descriptor, EPOLL_CTL_DEL, descriptor, nullptr);
}

int Poller::wait(Events &events, int milliseconds) const
{
    return qMax(0, ::epoll_wait(_descriptor, events.data(), MAX_EVENTS, milliseconds));
}

} // namespace bus
