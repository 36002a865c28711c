#include "trelanobject.h"

#include "trelanmessage.h"
#include "values/uids.h"
#include "values/wildcard.h"
#include "values/wirevalue.h"

#include <jsonwriter.h>
#include <wirekeys.h>

#include <utility>

namespace bus
{

const QString TrelanObject::MSG_REASON_HD = keys::NOTIFIED_REASON;
const QString TrelanObject::MSG_REASON_SUB = reasons::SUBSCRIPTION;
const QString TrelanObject::MSG_NAME_HD = keys::NOTIFIED_NAME;
const QString TrelanObject::MSG_CONTEXT_HD = keys::NOTIFIED_CONTENT;

TrelanObject::TrelanObject()
    : TrelanObject(TrelanTimestamp::now())
{}

TrelanObject::TrelanObject(const TrelanTimestamp &timestamp)
    : _timestamp(timestamp)
    , _options(Stored)
{}

TrelanObject::TrelanObject(const TrelanObject &other) = default;
TrelanObject::TrelanObject(TrelanObject &&other) = default;
TrelanObject::~TrelanObject() = default;
TrelanObject &TrelanObject::operator=(const TrelanObject &other) = default;

TrelanObject &TrelanObject::operator=(TrelanObject &&other) noexcept
{
    std::swap(_publisher, other._publisher);
    std::swap(_name, other._name);
    std::swap(_timestamp, other._timestamp);
    std::swap(_content, other._content);
    std::swap(_uid, other._uid);
    _options = other._options;
    return *this;
}

bool TrelanObject::operator==(const TrelanObject &other) const
{
    return _publisher == other._publisher && _name == other._name &&
           _timestamp == other._timestamp && _content == other._content && _uid == other._uid &&
           int(_options) == int(other._options);
}

bool TrelanObject::operator!=(const TrelanObject &other) const
{
    return !(*this == other);
}

QString TrelanObject::publisher() const
{
    return _publisher;
}

void TrelanObject::setPublisher(const QString &publisher)
{
    _publisher = publisher;
}

QString TrelanObject::name() const
{
    return _name;
}

void TrelanObject::setName(const QString &name)
{
    _name = name;
}

QDateTime TrelanObject::dt() const
{
    return _timestamp.toDateTime();
}

void TrelanObject::setDt(const QDateTime &dt)
{
    _timestamp = dt;
}

QVariantMap TrelanObject::content() const
{
    return _content;
}

void TrelanObject::setContent(const QVariantMap &content)
{
    _content = content;
}

QString TrelanObject::uid() const
{
    return _uid;
}

void TrelanObject::setUid(const QString &uid)
{
    _uid = uid;
}

QFlags<TrelanObject::Option> TrelanObject::options() const
{
    return _options;
}

void TrelanObject::setOptions(const QFlags<Option> &options)
{
    _options = options;
}

bool TrelanObject::isLogged() const
{
    return _options.testFlag(Logged);
}

void TrelanObject::setLogged(bool logged)
{
    _options.setFlag(Logged, logged);
}

bool TrelanObject::isStored() const
{
    return _options.testFlag(Stored);
}

void TrelanObject::setStored(bool stored)
{
    _options.setFlag(Stored, stored);
    if (!stored)
        _options.setFlag(Permanent, false);
}

bool TrelanObject::isPermanent() const
{
    return _options.testFlag(Stored) && _options.testFlag(Permanent);
}

void TrelanObject::setPermanent(bool permanent)
{
    _options.setFlag(Permanent, permanent);
    if (permanent)
        _options.setFlag(Stored, true);
}

QString TrelanObject::genUid() const
{
    return uids::of(*this, json::compact(_content));
}

QVariantMap TrelanObject::toVariantMap() const
{
    return {
        {keys::OBJECT_PUBLISHER, _publisher},
        {keys::OBJECT_NAME, _name},
        {keys::TIME, value::timeToWire(_timestamp)},
        {keys::OBJECT_CONTENT, _content},
        {keys::UID, _uid},
        {keys::OBJECT_OPTIONS, int(_options)},
    };
}

TrelanObject TrelanObject::fromVariantMap(const QVariantMap &map)
{
    TrelanObject object(value::timeFromWire(map.value(keys::TIME)));
    object.setPublisher(map.value(keys::OBJECT_PUBLISHER).toString());
    object.setName(map.value(keys::OBJECT_NAME).toString());
    object.setContent(map.value(keys::OBJECT_CONTENT).toMap());
    object.setUid(map.value(keys::UID).toString());
    object.setOptions(Options(QFlag(map.value(keys::OBJECT_OPTIONS).toInt())));
    return object;
}

TrelanMessage TrelanObject::toMessage(const QString &reciever) const
{
    const QVariantMap notification {
        {MSG_REASON_HD, MSG_REASON_SUB},
        {MSG_NAME_HD, _name},
        {MSG_CONTEXT_HD, _content},
    };
    TrelanMessage message(_timestamp);
    // The text is indented, unlike a command's body: readers of the bus compare its bytes.
    message.setMessage(QString::fromUtf8(json::indented(notification)));
    message.setOptions({});
    message.setReciever(reciever);
    message.setSender(_publisher);
    message.setUid(_uid);
    return message;
}

bool TrelanObject::testWildCard(const QString &name, const QString &wildcard)
{
    return wildcard::matches(name, wildcard);
}

const TrelanTimestamp &TrelanObject::timestamp() const
{
    return _timestamp;
}

} // namespace bus
