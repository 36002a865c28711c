#include "eventdispatcher.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QSocketNotifier>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <vector>

namespace bus
{

namespace
{

constexpr quint64 WAKE_TOKEN = EventDispatcher::OWN_TOKENS;
constexpr quint64 NOTIFIER_TOKENS = EventDispatcher::OWN_TOKENS + 1; // plus the descriptor
constexpr int MAX_WAIT_MS = 3600 * 1000;                             // after which it looks again

// By QSocketNotifier::Type: the events that are watched for a notifier, and the events that
// activate it.
constexpr std::array<quint32, 3> WATCHED {EPOLLIN, EPOLLOUT, EPOLLPRI};
constexpr std::array<quint32, 3> ACTIVATING {
    EPOLLIN | EPOLLHUP | EPOLLERR, EPOLLOUT | EPOLLHUP | EPOLLERR, EPOLLPRI | EPOLLHUP | EPOLLERR};

quint32 watchedBy(const std::array<QSocketNotifier *, 3> &notifiers)
{
    quint32 events = 0;
    for (size_t type = 0; type < notifiers.size(); ++type)
        events |= notifiers.at(type) ? WATCHED.at(type) : 0;
    return events;
}

} // namespace

EventDispatcher::~EventDispatcher()
{
    if (_wakeDescriptor >= 0)
        ::close(_wakeDescriptor);
}

bool EventDispatcher::open()
{
    if (!_poller.open())
        return false;
    _wakeDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return _wakeDescriptor >= 0 && _poller.watch(_wakeDescriptor, WAKE_TOKEN, EPOLLIN);
}

Poller &EventDispatcher::poller()
{
    return _poller;
}

void EventDispatcher::setHandler(const Handler &handler)
{
    _handler = handler;
}

bool EventDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    QCoreApplication::sendPostedEvents(); // events that they post wake the dispatcher again
    const bool canWait = flags.testFlag(QEventLoop::WaitForMoreEvents);
    if (canWait)
        emit aboutToBlock();
    Poller::Events events;
    const int count = _poller.wait(events, canWait ? patience() : 0);
    if (canWait)
        emit awake();
    const bool timersRan = activateTimers();
    for (int i = 0; i < count; ++i)
        activate(events.at(size_t(i)));
    return timersRan || count > 0;
}

bool EventDispatcher::hasPendingEvents()
{
    Poller::Events events;
    return patience() == 0 || _poller.wait(events, 0) > 0;
}

void EventDispatcher::registerSocketNotifier(QSocketNotifier *notifier)
{
    const int descriptor = int(notifier->socket());
    const bool isKnown = _notifiers.contains(descriptor);
    Notifiers &notifiers = _notifiers[descriptor];
    notifiers.at(notifier->type()) = notifier;
    const quint64 token = NOTIFIER_TOKENS + quint64(descriptor);
    if (isKnown)
        _poller.change(descriptor, token, watchedBy(notifiers));
    else if (!_poller.watch(descriptor, token, watchedBy(notifiers)))
        qWarning().noquote() << "cannot watch descriptor" << descriptor << ':'
                             << qt_error_string(errno);
}

void EventDispatcher::unregisterSocketNotifier(QSocketNotifier *notifier)
{
    const int descriptor = int(notifier->socket());
    const auto notifiers = _notifiers.find(descriptor);
    if (notifiers == _notifiers.end() || notifiers->at(notifier->type()) != notifier)
        return;
    notifiers->at(notifier->type()) = nullptr;
    const quint32 events = watchedBy(*notifiers);
    if (events != 0) {
        _poller.change(descriptor, NOTIFIER_TOKENS + quint64(descriptor), events);
        return;
    }
    _notifiers.erase(notifiers);
    _poller.forget(descriptor);
}

void EventDispatcher::registerTimer(int id, int milliseconds, Qt::TimerType type, QObject *object)
{
    const Clock::time_point due = Clock::now() + std::chrono::milliseconds(milliseconds);
    _timers.insert(id, {object, milliseconds, type, due});
    _schedule.emplace(due, id);
}

bool EventDispatcher::unregisterTimer(int id)
{
    const auto timer = _timers.find(id);
    if (timer == _timers.end())
        return false;
    _schedule.erase({timer->due, id});
    _timers.erase(timer);
    return true;
}

bool EventDispatcher::unregisterTimers(QObject *object)
{
    const QList<TimerInfo> timers = registeredTimers(object);
    for (const TimerInfo &timer : timers)
        unregisterTimer(timer.timerId);
    return !timers.isEmpty();
}

QList<QAbstractEventDispatcher::TimerInfo> EventDispatcher::registeredTimers(QObject *object) const
{
    QList<TimerInfo> timers;
    for (auto timer = _timers.begin(); timer != _timers.end(); ++timer) {
        if (timer->object == object)
            timers.append(TimerInfo(timer.key(), timer->milliseconds, timer->type));
    }
    return timers;
}

int EventDispatcher::remainingTime(int id)
{
    const auto timer = _timers.constFind(id);
    if (timer == _timers.constEnd())
        return -1;
    const auto remaining =
        std::chrono::ceil<std::chrono::milliseconds>(timer->due - Clock::now()).count();
    return int(qBound<qint64>(0, remaining, std::numeric_limits<int>::max()));
}

void EventDispatcher::wakeUp()
{
    if (!_isWoken.exchange(true))
        ::eventfd_write(_wakeDescriptor, 1);
}

/// Waking is enough, since the loop looks for its end after each round of events.
void EventDispatcher::interrupt()
{
    wakeUp();
}

void EventDispatcher::flush() {}

/// How many milliseconds nothing has to be done; less than zero without end.
int EventDispatcher::patience() const
{
    if (_schedule.empty())
        return -1;
    const auto remaining =
        std::chrono::ceil<std::chrono::milliseconds>(_schedule.begin()->first - Clock::now());
    return int(qBound<qint64>(0, remaining.count(), MAX_WAIT_MS));
}

/// Activates each timer that is due once. A timer without an interval is due again in the next
/// turn.
bool EventDispatcher::activateTimers()
{
    if (_schedule.empty())
        return false;
    const Clock::time_point now = Clock::now();
    std::vector<int> due;
    for (auto next = _schedule.begin(); next != _schedule.end() && next->first <= now; ++next)
        due.push_back(next->second);
    for (const int id : due) {
        const auto timer = _timers.find(id); // another timer may have ended this one
        if (timer == _timers.end() || timer->due > now)
            continue;
        _schedule.erase({timer->due, id});
        const std::chrono::milliseconds interval(timer->milliseconds);
        timer->due += interval;
        if (timer->due < now) // missed times are not made up for
            timer->due = now + interval;
        _schedule.emplace(timer->due, id);
        QTimerEvent event(id);
        QCoreApplication::sendEvent(timer->object, &event);
    }
    return !due.empty();
}

void EventDispatcher::activate(const epoll_event &event)
{
    const quint64 token = event.data.u64;
    if (token < OWN_TOKENS)
        _handler(token, event.events);
    else if (token == WAKE_TOKEN)
        takeWakeUp();
    else
        activateNotifiers(int(token - NOTIFIER_TOKENS), event.events);
}

/// Looks each notifier up, since an earlier one may have removed it.
void EventDispatcher::activateNotifiers(int descriptor, quint32 events)
{
    for (size_t type = 0; type < ACTIVATING.size(); ++type) {
        QSocketNotifier *notifier = _notifiers.value(descriptor).at(type);
        if (!notifier || (events & ACTIVATING.at(type)) == 0)
            continue;
        QEvent event(QEvent::SockAct);
        QCoreApplication::sendEvent(notifier, &event);
    }
}

/// Empties the descriptor before the flag, since wakeUp() writes only while the flag is not set.
void EventDispatcher::takeWakeUp()
{
    eventfd_t count = 0;
    ::eventfd_read(_wakeDescriptor, &count);
    _isWoken.exchange(false);
}

} // namespace bus
