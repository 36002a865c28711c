#pragma once

#include "trelantransport.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QRandomGenerator>
#include <QtCore/QTimer>

/// What the two workers have in common: how they come back, and how a channel is taken down.
/// Internal to the library.
namespace bus::channelworker
{

constexpr int RESTART_INTERVAL_MS = 5000;

/// \brief How long to wait before the next attempt to connect.
///
/// In Paced mode always the same. In Prompt mode not at all at first, then longer each time, and by
/// chance not as long as others, so that a thousand clients do not come back on the same beat. Only
/// a connection that has lasted makes the first attempt free again: two programs of one name, which
/// take over from each other, must not do so at full speed.
class Reconnection
{
public:
    void connected() { _connected.start(); }

    int nextDelay()
    {
        if (TrelanTransport::mode() == TrelanTransport::Paced)
            return RESTART_INTERVAL_MS;
        if (_connected.isValid() && _connected.hasExpired(LASTING_MS))
            _attempts = 0;
        _connected.invalidate();
        if (_attempts++ == 0)
            return 0;
        const int doublings = qMin(_attempts - 2, MAX_DOUBLINGS);
        const int most = qMin(RESTART_INTERVAL_MS, FIRST_DELAY_MS << doublings);
        return QRandomGenerator::global()->bounded(most / 2, most + 1);
    }

private:
    static constexpr int FIRST_DELAY_MS = 100;
    static constexpr int MAX_DOUBLINGS = 6;
    static constexpr qint64 LASTING_MS = 10000;

    QElapsedTimer _connected;
    int _attempts = 0;
};

/// A timer that restarts \a worker, some time after a signal of \a channel, or of open(), says that
/// the connection is lost; \a accepted is the signal that the bus has taken the client in.
template <typename Channel>
QTimer *makeRestartTimer(QObject *worker, Channel *channel, void (Channel::*accepted)(),
                         Reconnection &reconnection)
{
    auto *timer = new QTimer(worker);
    timer->setInterval(RESTART_INTERVAL_MS);
    QObject::connect(channel, accepted, timer, [&reconnection] { reconnection.connected(); });
    QObject::connect(channel, &Channel::busDisconnected, timer,
                     [timer, &reconnection] { timer->setInterval(reconnection.nextDelay()); });
    return timer;
}

/// No connection has come about.
inline void restartLater(QTimer &timer, Reconnection &reconnection)
{
    if (TrelanTransport::mode() == TrelanTransport::Prompt && timer.isActive())
        return; // the loss has been counted
    timer.start(reconnection.nextDelay());
}

/// Deleted later, since a restart comes out of the timer's own timeout().
inline void stopTimer(QPointer<QTimer> &timer)
{
    if (!timer)
        return;
    timer->blockSignals(true);
    timer->stop();
    timer->deleteLater();
    timer.clear();
}

/// Its signals are blocked first: a connection that is closed on purpose must not look like one
/// that is lost. Deleted later, since a restart may come out of one of its signals.
template <typename Channel>
void stopChannel(QPointer<Channel> &channel)
{
    if (!channel)
        return;
    channel->blockSignals(true);
    channel->close();
    channel->deleteLater();
    channel.clear();
}

} // namespace bus::channelworker
