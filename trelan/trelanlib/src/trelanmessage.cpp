#include "trelanmessage.h"

#include "values/wirevalue.h"

#include <wirekeys.h>

#include <QtCore/QStringBuilder>

namespace bus
{

TrelanMessage::TrelanMessage()
    : TrelanMessage(TrelanTimestamp::now())
{}

TrelanMessage::TrelanMessage(const TrelanTimestamp &timestamp)
    : _timestamp(timestamp)
{}

TrelanMessage::TrelanMessage(const TrelanMessage &other) = default;
TrelanMessage::TrelanMessage(TrelanMessage &&other) noexcept = default;
TrelanMessage::~TrelanMessage() = default;
TrelanMessage &TrelanMessage::operator=(const TrelanMessage &other) = default;
TrelanMessage &TrelanMessage::operator=(TrelanMessage &&other) noexcept = default;

bool TrelanMessage::operator==(const TrelanMessage &other) const
{
    return _sender == other._sender && _reciever == other._reciever && _options == other._options &&
           _timestamp == other._timestamp && _message == other._message && _uid == other._uid;
}

bool TrelanMessage::operator!=(const TrelanMessage &other) const
{
    return !(*this == other);
}

QString TrelanMessage::sender() const
{
    return _sender;
}

void TrelanMessage::setSender(const QString &sender)
{
    _sender = sender;
}

QString TrelanMessage::reciever() const
{
    return _reciever;
}

void TrelanMessage::setReciever(const QString &reciever)
{
    _reciever = reciever;
}

QFlags<TrelanMessage::Option> TrelanMessage::options() const
{
    return _options;
}

void TrelanMessage::setOptions(const QFlags<Option> &options)
{
    _options = options;
}

QDateTime TrelanMessage::dt() const
{
    return _timestamp.toDateTime();
}

void TrelanMessage::setDt(const QDateTime &dt)
{
    _timestamp = dt;
}

QString TrelanMessage::message() const
{
    return _message;
}

void TrelanMessage::setMessage(const QString &message)
{
    _message = message;
}

QString TrelanMessage::uid() const
{
    return _uid;
}

void TrelanMessage::setUid(const QString &uid)
{
    _uid = uid;
}

bool TrelanMessage::isLogged() const
{
    return _options.testFlag(Logged);
}

void TrelanMessage::setLogged(bool logged)
{
    setOption(Logged, logged);
}

bool TrelanMessage::isStored() const
{
    return _options.testFlag(Stored);
}

void TrelanMessage::setStored(bool stored)
{
    setOption(Stored, stored);
}

bool TrelanMessage::needAnswer() const
{
    return _options.testFlag(NeedAnswer);
}

void TrelanMessage::setNeedAnswer(bool needAnswer)
{
    setOption(NeedAnswer, needAnswer);
}

QString TrelanMessage::genUid() const
{
    const QString text = QStringLiteral("TrelanMessage") + _sender + _reciever + _message +
                         _timestamp.toIsoText() + QString::number(int(_options)) + value::nowText();
    return value::digest(text.toUtf8());
}

QString TrelanMessage::msgKey() const
{
    const QChar sign = QLatin1Char('%');
    if (!_sender.contains(sign) && !_reciever.contains(sign))
        return _sender % QLatin1Char('.') % _reciever % QLatin1Char('.') % _uid;
    // One arg() after the other, not arg(a, b, c): a sender that holds "%2" has always been filled
    // in by the next value, and keys are compared with those that other peers make.
    return QStringLiteral("%1.%2.%3")
        .arg(_sender)
        .arg(_reciever)
        .arg(_uid); // clazy:exclude=qstring-arg
}

QVariantMap TrelanMessage::toVariantMap() const
{
    return {
        {keys::TIME, value::timeToWire(_timestamp)},
        {keys::MESSAGE_TEXT, _message},
        {keys::MESSAGE_RECIEVER, _reciever},
        {keys::MESSAGE_SENDER, _sender},
        {keys::UID, _uid},
        {keys::MESSAGE_OPTIONS, int(_options)},
    };
}

TrelanMessage TrelanMessage::fromVariantMap(const QVariantMap &map)
{
    TrelanMessage message(value::timeFromWire(map.value(keys::TIME)));
    message.setMessage(map.value(keys::MESSAGE_TEXT).toString());
    message.setOptions(Options(QFlag(map.value(keys::MESSAGE_OPTIONS).toInt())));
    message.setReciever(map.value(keys::MESSAGE_RECIEVER).toString());
    message.setSender(map.value(keys::MESSAGE_SENDER).toString());
    message.setUid(map.value(keys::UID).toString());
    return message;
}

const TrelanTimestamp &TrelanMessage::timestamp() const
{
    return _timestamp;
}

void TrelanMessage::setOption(Option option, bool on)
{
    _options.setFlag(option, on);
}

} // namespace bus
