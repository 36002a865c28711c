#pragma once

#include <QtCore/QPointer>
#include <QtCore/QTimer>

/// What the two workers have in common: how they come back, and how a channel is taken down.
/// Internal to the library.
namespace bus::channelworker
{

constexpr int RESTART_INTERVAL_MS = 5000;

inline QTimer *makeRestartTimer(QObject *worker)
{
    auto *timer = new QTimer(worker);
    timer->setInterval(RESTART_INTERVAL_MS);
    return timer;
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
