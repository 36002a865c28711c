#pragma once

#include "trelanchannelsettings.h"
#include "trelanconnectionstate.h"
#include "trelanerror.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QRandomGenerator>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>

/// Shared by the two workers: when to connect again, what to say of a connection that is not there,
/// and how to take a channel down. Internal to
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
///
/// With pauses of its own a channel does as in Prompt mode, with these. It waits much longer where
/// its connection was probably taken, see TrelanChannelSettings::setPauses().
class Reconnection
{
public:
    /// What the channel is going to be opened with.
    void begin(const TrelanChannelSettings &settings)
    {
        const bool hasPauses = settings.firstPause() > 0;
        _isVaried = hasPauses || settings.mode() == TrelanTransport::Prompt;
        _yields = hasPauses;
        _firstPause = hasPauses ? settings.firstPause() : FIRST_PAUSE_MS;
        _maxPause = hasPauses ? settings.maxPause() : RESTART_INTERVAL_MS;
    }

    /// Whether the delays differ, and the first one is none.
    bool isVaried() const { return _isVaried; }

    /// The bus has accepted the client.
    void connected() { _connected.start(); }

    int delayAfterLoss()
    {
        return delayAfterLoss(_connected.isValid() ? _connected.elapsed() : NOT_ACCEPTED);
    }
    /// \a lasted says for how many milliseconds the connection was accepted.
    int delayAfterLoss(qint64 lasted)
    {
        _connected.invalidate();
        const bool isSoon = lasted >= 0 && lasted < LASTING_MS + 3 * qint64(_yielded);
        if (lasted >= 0)
            _soonLost = isSoon ? _soonLost + 1 : 0;
        if (lasted >= LASTING_MS)
            _attempts = 0;
        if (!_yields || !isSoon) {
            _yielded = 0;
            return nextDelay();
        }
        _attempts = 1;
        _yielded = qBound(TAKEN_MS, 2 * _yielded, MAX_TAKEN_MS);
        return QRandomGenerator::global()->bounded(_yielded, _yielded + _yielded / 4);
    }

    /// The bus is not there, or does not accept the client. So it was not another client that took
    /// the connection before.
    int delayAfterFailure()
    {
        if (_connected.isValid() && _connected.hasExpired(LASTING_MS))
            _attempts = 0;
        _connected.invalidate();
        _soonLost = 0;
        _yielded = 0;
        return nextDelay();
    }

    /// Whether connection after connection was lost soon, without a failure in between.
    bool isProbablyTaken() const { return _soonLost > 1; }

private:
    static constexpr int FIRST_PAUSE_MS = 100;
    static constexpr int MAX_DOUBLINGS = 20;
    static constexpr qint64 LASTING_MS = 10000;
    static constexpr qint64 NOT_ACCEPTED = -1;
    static constexpr int TAKEN_MS = 5000;
    static constexpr int MAX_TAKEN_MS = 60000;

    int nextDelay()
    {
        if (!_isVaried)
            return RESTART_INTERVAL_MS;
        if (_attempts++ == 0)
            return 0;
        const int doublings = qMin(_attempts - 2, MAX_DOUBLINGS);
        const int most = int(qMin<qint64>(_maxPause, qint64(_firstPause) << doublings));
        return QRandomGenerator::global()->bounded(most / 2, most + 1);
    }

    bool _isVaried = false;
    bool _yields = false;
    int _firstPause = FIRST_PAUSE_MS;
    int _maxPause = RESTART_INTERVAL_MS;
    QElapsedTimer _connected;
    int _attempts = 0;
    int _soonLost = 0; // connections, one after the other
    int _yielded = 0;  // the last wait for a connection that was probably taken
};

/// For people.
inline QString busAt(quint32 host, quint16 port)
{
    return QStringLiteral("%1:%2").arg(QHostAddress(host).toString()).arg(port);
}

/// \a address is that of the bus, as busAt() gives it.
inline TrelanConnectionState lostState(const Reconnection &reconnection, const QString &clientName,
                                       const QString &address)
{
    if (!reconnection.isProbablyTaken())
        return TrelanConnectionState::away(
            TrelanConnectionState::NoBus,
            QStringLiteral("the connection with %1 is lost").arg(address));
    return TrelanConnectionState::away(
        TrelanConnectionState::NameTaken,
        QStringLiteral("%1 ends each connection soon: another program is probably called \"%2\"")
            .arg(address, clientName));
}

/// \a other is the name of the other channel, whose port it is if the bus supports nothing.
inline TrelanConnectionState refusedState(const TrelanError &error, const QString &address,
                                          const QString &other)
{
    if (error == TrelanError(TrelanError::UnsupportedRequest))
        return TrelanConnectionState::away(
            TrelanConnectionState::OtherPort,
            QStringLiteral("%1 seems to be the %2 channel").arg(address, other));
    return TrelanConnectionState::away(TrelanConnectionState::Refused,
                                       QStringLiteral("%1 refuses the client: %2 %3")
                                           .arg(address)
                                           .arg(error.error())
                                           .arg(error.description()));
}

inline TrelanConnectionState stoppedState()
{
    return TrelanConnectionState::away(TrelanConnectionState::NoReason, QStringLiteral("stopped"));
}

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
                     [timer, &reconnection] { timer->setInterval(reconnection.delayAfterLoss()); });
    return timer;
}

/// Starts the timer after a failed attempt to connect.
inline void restartLater(QTimer &timer, Reconnection &reconnection)
{
    if (reconnection.isVaried() && timer.isActive())
        return; // the loss of the connection has started it
    timer.start(reconnection.delayAfterFailure());
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
