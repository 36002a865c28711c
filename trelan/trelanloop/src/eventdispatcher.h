#pragma once

#include "poller.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QHash>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <utility>

namespace bus
{

/// \brief The event loop of the bus, and of the threads of clients: one wait for connections,
/// notifiers, timers and other threads.
///
/// Qt's own dispatcher waits in one system call, would ask for the connections in a second one, and
/// goes through all of its lists in between. Bus and clients would pay for that with every request.
///
/// The dispatcher does what these threads need: events, timers (all of them to the
/// millisecond) and socket notifiers, of which one of a kind may be enabled for a descriptor. There
/// is no loop within a loop, and of the flags of processEvents() only WaitForMoreEvents counts.
///
/// Any thread may make and open it and give it to a thread that has not started
/// (QThread::setEventDispatcher()). Only that thread uses it from then on, except for wakeUp() and
/// interrupt(), which are thread-safe.
class EventDispatcher : public QAbstractEventDispatcher
{
public:
    /// Is called with what is ready of poller(), in the bits of epoll.
    using Handler = std::function<void(quint64 id, quint32 events)>;

    EventDispatcher() = default;
    ~EventDispatcher() override;

    /// False, with errno, if the system has no descriptor left. To be called first.
    bool open();

    /// Watches what is not worth a notifier. Tokens below OWN_TOKENS are told to the handler, which
    /// has to stay as long as anything is watched for it.
    Poller &poller();
    void setHandler(const Handler &handler);
    static constexpr quint64 OWN_TOKENS = 1ULL << 63U;

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;

    void registerSocketNotifier(QSocketNotifier *notifier) override;
    void unregisterSocketNotifier(QSocketNotifier *notifier) override;

    void registerTimer(int id, int milliseconds, Qt::TimerType type, QObject *object) override;
    bool unregisterTimer(int id) override;
    bool unregisterTimers(QObject *object) override;
    QList<TimerInfo> registeredTimers(QObject *object) const override;
    int remainingTime(int id) override;

    void wakeUp() override;
    void interrupt() override;
    void flush() override;

private:
    using Clock = std::chrono::steady_clock;
    using DueTimer = std::pair<Clock::time_point, int>; // when, and the id of the timer

    struct Timer
    {
        QObject *object = nullptr;
        int milliseconds = 0;
        Qt::TimerType type = Qt::PreciseTimer;
        Clock::time_point due;
    };
    /// By QSocketNotifier::Type.
    using Notifiers = std::array<QSocketNotifier *, 3>;

    int patience() const;
    bool activateTimers();
    void activate(const epoll_event &event);
    void activateNotifiers(int descriptor, quint32 events);
    void takeWakeUp();

    Poller _poller;
    Handler _handler;
    QHash<int, Notifiers> _notifiers; // by descriptor
    QHash<int, Timer> _timers;        // by id
    std::set<DueTimer> _schedule;
    int _wakeDescriptor = -1;
    std::atomic<bool> _isWoken {false};
};

} // namespace bus
