#include "client/bussession.h"

#include "client/clientlog.h"
#include "client/deadlines.h"

#include <wirekeys.h>

#include <QtCore/QRandomGenerator>
#include <QtNetwork/QHostAddress>

namespace bus
{

namespace
{

/// What the client would use, and does without where it is not there.
const QStringList WANTED {features::CLIENTS, features::LIMIT, features::NOW, features::REMOVALS,
                          features::TOLD};

quint32 addressOf(const QString &host)
{
    bool isNumeric = false;
    const quint32 address = QHostAddress(host).toIPv4Address(&isNumeric);
    return isNumeric ? address : 0;
}

int chance(int from, int below)
{
    return QRandomGenerator::global()->bounded(from, below);
}

} // namespace

BusSession::BusSession(const QString &clientName, const TrelanClientSettings &settings,
                       QObject *parent)
    : QObject(parent)
    , _clientName(clientName)
    , _settings(settings)
    , _host(addressOf(settings.host()))
    , _queries(this)
    , _messages(clientName, this)
    , _probe(clientName, this)
    , _policy(settings.maxPause())
    , _pause(this)
{
    _pause.setSingleShot(true);
    connect(&_pause, &QTimer::timeout, this, &BusSession::connectNow);
    connect(&_queries, &AskingChannel::connected, this, [this] {
        _queries.shakeHands(_clientName, _asksFeatures,
                            [this](const AskingChannel::Reply &reply) { onQueryAnswer(reply); });
    });
    const auto onLost = [this](const QString &reason) {
        fail(TrelanConnectionState::NoBus,
             QStringLiteral("no bus at %1: %2").arg(address(), reason));
    };
    connect(&_queries, &AskingChannel::lost, this, onLost);
    connect(&_messages, &MessageChannel::lost, this, onLost);
    connect(&_messages, &MessageChannel::accepted, this,
            [this](const BusFeatures &features) { onAccepted(features, channels::MESSAGE); });
    connect(&_messages, &MessageChannel::refused, this, &BusSession::onRefused);
    connect(&_messages, &MessageChannel::arrived, this, &BusSession::arrived);
    connect(&_probe, &NameProbe::finished, this, &BusSession::onProbed);
}

void BusSession::start()
{
    connectNow();
}

void BusSession::stop()
{
    _phase = Stopped;
    _pause.stop();
    _probe.stop();
    closeChannels();
}

bool BusSession::isFirstAttempt() const
{
    return _state.status() == TrelanConnectionState::Connecting;
}

void BusSession::takeForOtherPort()
{
    fail(TrelanConnectionState::OtherPort,
         QStringLiteral("port %1 is that of the message channel").arg(_settings.queryPort()));
}

void BusSession::connectNow()
{
    if (_host == 0 || _settings.queryPort() == 0 || _settings.messagePort() == 0) {
        // Nothing of that changes: there is no further attempt.
        _phase = Stopped;
        setState(TrelanConnectionState::away(
            TrelanConnectionState::NoBus,
            QStringLiteral("\"%1\" is no numeric IPv4 address, or a port is 0")
                .arg(_settings.host())));
        emit down();
        return;
    }
    _phase = Connecting;
    _queries.open(_host, _settings.queryPort(), _settings.patience());
}

void BusSession::onQueryAnswer(const AskingChannel::Reply &reply)
{
    if (!reply.isThere)
        return; // which is told as a loss, too
    if (!reply.isYes())
        return onRefused(reply.error);
    _features = BusFeatures::fromData(reply.data);
    onAccepted(_features, channels::QUERY);
}

void BusSession::onAccepted(const BusFeatures &features, const QString &channel)
{
    if (!features.channel.isEmpty() && features.channel != channel) {
        const bool isQuery = channel == QString(channels::QUERY);
        fail(
            TrelanConnectionState::OtherPort,
            QStringLiteral("port %1 is that of the other channel, and was given for the %2 channel")
                .arg(isQuery ? _settings.queryPort() : _settings.messagePort())
                .arg(channel));
        return;
    }
    if (channel == QString(channels::QUERY)) {
        // Only now: the bus has dropped what the last query connection had subscribed. What still
        // came of that would be taken for an answer to what is subscribed next.
        _messages.open(_host, _settings.messagePort(), _settings.patience(), _asksFeatures);
        return;
    }
    _phase = Up;
    _policy.accepted(steadyNow());
    _ownAddresses = {_queries.localAddress(), _messages.localAddress()};
    QStringList lacking;
    for (const QString &wanted : WANTED) {
        if (!_features.has(wanted))
            lacking.append(wanted);
    }
    qCInfo(CLIENT_LOG).noquote()
        << QStringLiteral("client \"%1\" has the bus at %2").arg(_clientName, address());
    setState(TrelanConnectionState::connected(lacking));
    emit up();
}

void BusSession::onRefused(const TrelanError &error)
{
    if (_asksFeatures) {
        // An old bus may refuse the question and not the client.
        _asksFeatures = false;
        closeChannels();
        pause(0);
        return;
    }
    _asksFeatures = true;
    fail(TrelanConnectionState::Refused, QStringLiteral("the bus at %1 refuses \"%2\": %3")
                                             .arg(address(), _clientName, error.description()));
}

/// One door for every end of an attempt and of a connection.
void BusSession::fail(TrelanConnectionState::Reason reason, const QString &description)
{
    if (_phase != Connecting && _phase != Up)
        return;
    const bool wasUp = _phase == Up;
    const bool isSoon = _policy.lost(steadyNow());
    _phase = Pausing; // so that nobody asks what is told of its end
    closeChannels();
    if (wasUp && isSoon && reason == TrelanConnectionState::NoBus) {
        _phase = Probing;
        _probe.start(_host, _settings.queryPort(), _settings.patience(), _ownAddresses);
    } else {
        if (_state.reason() != reason)
            qCWarning(CLIENT_LOG).noquote()
                << QStringLiteral("client \"%1\": %2").arg(_clientName, description);
        pause(_policy.nextPause(chance));
    }
    setState(TrelanConnectionState::away(reason, description));
    emit down();
}

void BusSession::onProbed(NameProbe::Outcome outcome, const QString &address)
{
    const bool isTaken = outcome == NameProbe::Taken || outcome == NameProbe::Unknown;
    QString description = _state.description();
    if (outcome == NameProbe::Taken)
        description =
            QStringLiteral("the name \"%1\" is taken by a program at %2").arg(_clientName, address);
    else if (outcome == NameProbe::Unknown)
        description = QStringLiteral("the connection was lost soon after it was accepted: another "
                                     "program may have the name \"%1\"")
                          .arg(_clientName);
    qCWarning(CLIENT_LOG).noquote()
        << QStringLiteral("client \"%1\": %2").arg(_clientName, description);
    if (isTaken)
        setState(TrelanConnectionState::away(TrelanConnectionState::NameTaken, description));
    pause(isTaken ? _policy.nextPauseOfTaken(chance) : _policy.nextPause(chance));
}

void BusSession::pause(int milliseconds)
{
    _phase = Pausing;
    _pause.start(milliseconds);
}

void BusSession::closeChannels()
{
    _queries.close();
    _messages.close();
}

void BusSession::setState(const TrelanConnectionState &state)
{
    if (_state.isLike(state))
        return;
    _state = state;
    emit stateChanged(state);
}

QString BusSession::address() const
{
    return QStringLiteral("%1:%2").arg(_settings.host()).arg(_settings.queryPort());
}

} // namespace bus
