#pragma once

#include "trelanchannelsettings.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QRandomGenerator>
#include <QtCore/QTimer>

/// Shared by the two workers: when to connect again, and how to take a channel down. Internal to
/// the library.
namespace bus::channelworker
{

constexpr int RESTART_INTERVAL_MS = 5000;

/// \brief How long to wait before the next attempt to connect.
///
/// In Paced mode the delay is constant. In Prompt mode the first attempt is immediate and the delay
/// doubles with each further one; chance varies it, so that a thousand clients do not come back at
/// once. Only a connection that has lasted makes the next attempt immediate again: two programs of
/// one name, which take the connection from each other, must not do so at full speed.
class Reconnection
{
public:
    /// What the channel is going to be opened with.
    void begin(const TrelanChannelSettings &settings) { _mode = settings.mode(); }
    void connected() { _connected.start(); }
    /// Whether the delays differ, and the first one is none.
    bool isVaried() const { return _mode == TrelanTransport::Prompt; }

    int nextDelay()
    {
        if (!isVaried())
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

    TrelanTransport::Mode _mode = TrelanTransport::Paced;
    QElapsedTimer _connected;
    int _attempts = 0;
};

/// Makes the timer that restarts \a worker after \a channel has lost its connection, or has failed
/// to open. \a accepted is the signal by which the channel says that the bus accepts the client.
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

/// Starts the timer after a failed attempt to connect.
inline void restartLater(QTimer &timer, Reconnection &reconnection)
{
    if (reconnection.isVaried() && timer.isActive())
        return; // the loss of the connection has started it
    timer.start(reconnection.nextDelay());
}

/// Deletes the timer later, since a restart may come out of the timer's own timeout().
inline void stopTimer(QPointer<QTimer> &timer)
{
    if (!timer)
        return;
    timer->blockSignals(true);
    timer->stop();
    timer->deleteLater();
    timer.clear();
}

/// Closes the channel with its signals blocked, so that a connection closed on purpose does not
/// look lost. Deletes it later, since a restart may come out of one of its signals.
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
