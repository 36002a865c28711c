#include "trelanconnectionstate.h"

namespace bus
{

TrelanConnectionState::TrelanConnectionState()
    : _since(QDateTime::currentDateTime())
{}

TrelanConnectionState::TrelanConnectionState(Status status, Reason reason,
                                             const QString &description, const QStringList &lacking)
    : _status(status)
    , _reason(reason)
    , _description(description)
    , _since(QDateTime::currentDateTime())
    , _lacking(lacking)
{}

TrelanConnectionState TrelanConnectionState::connected(const QStringList &lacking)
{
    return {Connected, NoReason, {}, lacking};
}

TrelanConnectionState TrelanConnectionState::away(Reason reason, const QString &description)
{
    return {Away, reason, description, {}};
}

bool TrelanConnectionState::isLike(const TrelanConnectionState &other) const
{
    return _status == other._status && _reason == other._reason && _lacking == other._lacking;
}

TrelanConnectionState::Status TrelanConnectionState::status() const
{
    return _status;
}

TrelanConnectionState::Reason TrelanConnectionState::reason() const
{
    return _reason;
}

bool TrelanConnectionState::isConnected() const
{
    return _status == Connected;
}

QString TrelanConnectionState::description() const
{
    return _description;
}

QDateTime TrelanConnectionState::since() const
{
    return _since;
}

QStringList TrelanConnectionState::lacking() const
{
    return _lacking;
}

QString TrelanConnectionState::toString() const
{
    if (_status == Connecting)
        return QStringLiteral("connecting");
    if (_status == Connected)
        return QStringLiteral("connected");
    return QStringLiteral("away since %1: %2")
        .arg(_since.toString(QStringLiteral("HH:mm:ss")), _description);
}

} // namespace bus
