#include "trelancommand.h"

#include "trelanmessage.h"
#include "trelanobject.h"
#include "values/wirevalue.h"

#include <jsonwriter.h>
#include <wirekeys.h>

#include <QtCore/QDebug>

namespace bus
{

const QString TrelanCommand::BUS_OBJ_NAME_PREFIX = QStringLiteral("__bus__");
const QString TrelanCommand::CMD_NAME_PREFIX = QStringLiteral("__cmd__");
const QString TrelanCommand::MSG_CMD_HD = keys::COMMAND;
const QString TrelanCommand::MSG_NAME_HD = keys::COMMAND_NAME;
const QString TrelanCommand::MSG_PARAMS_HD = keys::COMMAND_PARAMS;
const QString TrelanCommand::PARENT_UID_HD = keys::COMMAND_PARENT;

TrelanCommand::TrelanCommand() = default;
TrelanCommand::TrelanCommand(const TrelanCommand &other) = default;
TrelanCommand::TrelanCommand(TrelanCommand &&other) = default;
TrelanCommand::~TrelanCommand() = default;
TrelanCommand &TrelanCommand::operator=(const TrelanCommand &other) = default;
TrelanCommand &TrelanCommand::operator=(TrelanCommand &&other) noexcept = default;

bool TrelanCommand::operator==(const TrelanCommand &other) const
{
    return _name == other._name && _params == other._params && _uid == other._uid &&
           _timestamp == other._timestamp && _sender == other._sender &&
           _reciever == other._reciever && _needAnswer == other._needAnswer &&
           _parentUid == other._parentUid;
}

bool TrelanCommand::operator!=(const TrelanCommand &other) const
{
    return !(*this == other);
}

QString TrelanCommand::name() const
{
    return _name;
}

void TrelanCommand::setName(const QString &name)
{
    _name = name;
}

QVariantMap TrelanCommand::params() const
{
    return _params;
}

void TrelanCommand::setParams(const QVariantMap &params)
{
    _params = params;
}

QString TrelanCommand::uid() const
{
    return _uid;
}

void TrelanCommand::setUid(const QString &uid)
{
    _uid = uid;
}

QDateTime TrelanCommand::dt() const
{
    return _timestamp.toDateTime();
}

void TrelanCommand::setDt(const QDateTime &dt)
{
    _timestamp = dt;
}

QString TrelanCommand::sender() const
{
    return _sender;
}

void TrelanCommand::setSender(const QString &sender)
{
    _sender = sender;
}

QString TrelanCommand::reciever() const
{
    return _reciever;
}

void TrelanCommand::setReciever(const QString &reciever)
{
    _reciever = reciever;
}

QString TrelanCommand::parentUid() const
{
    return _parentUid;
}

void TrelanCommand::setParentUid(const QString &parentUid)
{
    _parentUid = parentUid;
}

bool TrelanCommand::isLogged() const
{
    return _isLogged;
}

void TrelanCommand::setIsLogged(bool isLogged)
{
    _isLogged = isLogged;
}

bool TrelanCommand::needAnswer() const
{
    return _needAnswer && hasDestination();
}

void TrelanCommand::setNeedAnswer(bool needAnswer)
{
    _needAnswer = needAnswer;
}

bool TrelanCommand::hasDestination() const
{
    return !_reciever.isEmpty();
}

QString TrelanCommand::genUid() const
{
    const QString text = QStringLiteral("TrelanCommand") + _sender + _reciever +
                         _timestamp.toIsoText() + _name + value::nowText();
    return value::digest(text.toUtf8(), json::compact(_params));
}

QString TrelanCommand::createObjectName(const QString &name)
{
    return QStringLiteral("%1.%2.%3").arg(BUS_OBJ_NAME_PREFIX, CMD_NAME_PREFIX, name);
}

bool TrelanCommand::toTrelanObject(TrelanObject &object) const
{
    object = TrelanObject(sendTime());
    fillUid();
    object.setLogged(_isLogged);
    object.setStored(false);
    // The receiver is meant: it is empty when toVariant() converts, and the bus then fills in the
    // sender's name as the publisher.
    object.setPublisher(_reciever);
    object.setName(createObjectName(_name));
    object.setUid(_uid);
    object.setContent(_params);
    if (!_parentUid.isEmpty())
        qWarning("SYNC ANSWER MUST BE A MESSAGE");
    return true;
}

bool TrelanCommand::toTrelanMessage(TrelanMessage &message) const
{
    if (!hasDestination()) {
        message = TrelanMessage();
        return false;
    }
    message = TrelanMessage(sendTime());
    fillUid();
    message.setLogged(_isLogged);
    message.setStored(true);
    message.setNeedAnswer(_needAnswer);
    message.setReciever(_reciever);
    message.setSender(_sender);
    message.setUid(_uid);

    QVariantMap call {{MSG_NAME_HD, _name}, {MSG_PARAMS_HD, _params}};
    if (!_parentUid.isEmpty())
        call.insert(PARENT_UID_HD, _parentUid);
    const QVariantMap body {{MSG_CMD_HD, call}};
    message.setMessage(QString::fromUtf8(json::compact(body)));
    return true;
}

QVariant TrelanCommand::toVariant() const
{
    TrelanMessage message;
    if (toTrelanMessage(message))
        return message.toVariantMap();

    TrelanObject object;
    if (toTrelanObject(object))
        return object.toVariantMap();
    return {};
}

void TrelanCommand::setTimestamp(const TrelanTimestamp &timestamp)
{
    _timestamp = timestamp;
}

void TrelanCommand::fillUid() const
{
    if (_uid.isEmpty())
        _uid = genUid();
}

TrelanTimestamp TrelanCommand::sendTime() const
{
    return _timestamp.isValid() ? _timestamp : TrelanTimestamp::now();
}

} // namespace bus
