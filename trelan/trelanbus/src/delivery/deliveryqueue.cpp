#include "delivery/deliveryqueue.h"

#include "values/busnames.h"

#include <QtCore/QStringBuilder>

#include <algorithm>

namespace bus
{

namespace
{

// Headers and allocator, measured roughly: small messages must not come for free.
constexpr qint64 FIXED_COST = 256;
constexpr qint64 NAME_COST = 96;
// What a receiver remembers, and some more.
constexpr size_t MAX_REMEMBERED = 128;

QString keyOf(const QString &sender, const QString &reciever, const QString &uid)
{
    return sender % QLatin1Char('.') % reciever % QLatin1Char('.') % uid;
}

int indexOf(const QList<Delivery> &deliveries, const QString &key)
{
    const auto found = std::find_if(deliveries.cbegin(), deliveries.cend(),
                                    [&](const Delivery &delivery) { return delivery.key == key; });
    return found == deliveries.cend() ? -1 : int(found - deliveries.cbegin());
}

} // namespace

Delivery::Delivery(const DeliveryBody::Ref &bodyOfAll, const QString &recieverOfIt,
                   const QString &uidOfIt)
    : body(bodyOfAll)
    , reciever(recieverOfIt)
{
    setUid(uidOfIt);
}

void Delivery::setUid(const QString &newUid)
{
    uid = newUid;
    key = keyOf(body->sender(), reciever, uid);
}

qint64 Delivery::cost() const
{
    const qint64 characters = body->textSize() + reciever.size() + uid.size() + key.size();
    return FIXED_COST + characters * qint64(sizeof(QChar));
}

QByteArray Delivery::frame(TrelanTransport::Coding coding) const
{
    return body->frame(reciever, uid, coding);
}

void DeliveryQueue::append(Delivery delivery)
{
    delivery.number = ++_lastNumber;
    _bytes += delivery.cost();
    _waiting.append(delivery);
}

void DeliveryQueue::appendName(const QString &name, bool fresh)
{
    const auto known = _isFresh.find(name);
    if (known != _isFresh.end()) {
        *known = *known || fresh;
        return;
    }
    _isFresh.insert(name, fresh);
    _names.push_back({name, ++_lastNumber, 0});
    _nameBytes += nameCost(name);
}

bool DeliveryQueue::hasName(const QString &name) const
{
    return _isFresh.contains(name);
}

bool DeliveryQueue::hasNext() const
{
    return _inFlight.size() < MAX_IN_FLIGHT && !(_waiting.isEmpty() && _names.empty());
}

const Delivery *DeliveryQueue::largeToEncode(const Newest &newest)
{
    if (!hasNext())
        return nullptr;
    takeNames(newest);
    if (_waiting.isEmpty() || !_nextFrame.isEmpty() ||
        _waiting.first().body->textSize() <= LARGE_TEXT || _waiting.first().body->isEncoded())
        return nullptr;
    freshenFirst();
    return &_waiting.first();
}

void DeliveryQueue::setFrame(const QString &key, const QByteArray &frame)
{
    if (!_waiting.isEmpty() && _nextFrame.isEmpty() && _waiting.first().key == key)
        _nextFrame = frame;
}

QByteArray DeliveryQueue::takeFrame(qint64 now, const Newest &newest,
                                    TrelanTransport::Coding coding)
{
    if (!hasNext())
        return {};
    takeNames(newest);
    if (_waiting.isEmpty())
        return {};
    if (_nextFrame.isEmpty()) {
        freshenFirst();
        _nextFrame = _waiting.first().frame(coding);
    }
    if (!_inFlight.isEmpty() && _bytesInFlight + _nextFrame.size() > _maxBytesInFlight)
        return {};

    Delivery delivery = _waiting.takeFirst();
    delivery.sentAt = now;
    delivery.frameSize = _nextFrame.size();
    _bytesInFlight += delivery.frameSize;
    if (!delivery.sent)
        remember(delivery);
    delivery.sent = true;
    if (delivery.conflated) {
        // Should it have to be sent again, the value will be taken anew.
        _bytes -= delivery.cost();
        delivery.body = delivery.body->withoutText();
        _bytes += delivery.cost();
    }
    _inFlight.append(delivery);
    return std::exchange(_nextFrame, {});
}

void DeliveryQueue::setMode(TrelanTransport::Mode mode)
{
    _maxBytesInFlight =
        mode == TrelanTransport::Prompt ? MAX_BYTES_IN_FLIGHT_PROMPT : MAX_BYTES_IN_FLIGHT;
}

bool DeliveryQueue::acknowledge(const QString &sender, const QString &reciever, const QString &uid,
                                qint64 now)
{
    const QString key = keyOf(sender, reciever, uid);
    const int index = indexOf(_inFlight, key);
    if (index < 0)
        return settleWaiting(key);
    heard(now);
    const Delivery settled = _inFlight.takeAt(index);
    _bytesInFlight -= settled.frameSize;
    forget(settled);
    for (int i = 0; i < index; ++i) // an older value must not come after this one
        _inFlight[i].expired = _inFlight.at(i).expired || isSuperseded(_inFlight.at(i), settled);
    sendAgain(index);
    return true;
}

void DeliveryQueue::heard(qint64 now)
{
    _heardAt = now;
}

void DeliveryQueue::restart()
{
    _nextFrame.clear();
    _bytesInFlight = 0;
    while (!_inFlight.isEmpty()) {
        const Delivery delivery = _inFlight.takeLast();
        if (delivery.expired)
            forget(delivery);
        else
            waitAgain(delivery);
    }
}

void DeliveryQueue::dropNotifications()
{
    QList<Delivery> kept;
    for (const Delivery &delivery : std::as_const(_waiting)) {
        if (delivery.kind != Delivery::Addressed)
            forget(delivery);
        else
            kept.append(delivery);
    }
    _waiting = kept;
    _nextFrame.clear();
    _names.clear();
    _nameBytes = 0;
    _isFresh.clear();
    for (Delivery &delivery : _inFlight)
        delivery.expired = delivery.expired || delivery.kind != Delivery::Addressed;
}

void DeliveryQueue::clear()
{
    restart();
    dropNotifications();
    for (const Delivery &delivery : std::as_const(_waiting))
        forget(delivery);
    _waiting.clear();
}

bool DeliveryQueue::dropOldest(Delivery::Kind kind, bool keepNext)
{
    for (int i = int(keepNext); i < _waiting.size(); ++i) {
        if (_waiting.at(i).kind != kind)
            continue;
        forget(_waiting.takeAt(i));
        if (i == 0)
            _nextFrame.clear();
        return true;
    }
    return false;
}

void DeliveryQueue::checkTimes(qint64 now, qint64 lifetime)
{
    // A slow reader acknowledges the others meanwhile: that is no silence.
    if (!_inFlight.isEmpty() && now - qMax(_inFlight.first().sentAt, _heardAt) >= SILENCE_MS)
        sendAgain(1);
    for (int i = _waiting.size() - 1; i >= 0; --i) {
        Delivery &delivery = _waiting[i];
        if (delivery.kind != Delivery::Addressed)
            continue;
        delivery.outlived = now - delivery.queuedAt >= lifetime;
        if (!delivery.outlived && !isAnswerLate(delivery, now))
            continue;
        forget(delivery);
        _givenUp.prepend(_waiting.takeAt(i));
        if (i == 0)
            _nextFrame.clear();
    }
}

bool DeliveryQueue::hasDeadline() const
{
    return !_inFlight.isEmpty() ||
           std::any_of(_waiting.cbegin(), _waiting.cend(), [](const Delivery &delivery) {
               return delivery.kind == Delivery::Addressed;
           });
}

QList<Delivery> DeliveryQueue::takeGivenUp()
{
    return std::exchange(_givenUp, {});
}

QVector<qint64> DeliveryQueue::takeSettled()
{
    return std::exchange(_settled, {});
}

bool DeliveryQueue::isEmpty() const
{
    return _waiting.isEmpty() && _inFlight.isEmpty() && _names.empty();
}

int DeliveryQueue::count() const
{
    return _waiting.size() + _inFlight.size();
}

int DeliveryQueue::nameCount() const
{
    return int(_names.size());
}

qint64 DeliveryQueue::bytes() const
{
    return _bytes;
}

qint64 DeliveryQueue::nameBytes() const
{
    return _nameBytes;
}

qint64 DeliveryQueue::nameCost(const QString &name)
{
    return NAME_COST + name.size() * qint64(sizeof(QChar));
}

/// Makes a message of the name whose turn has come, and passes those over whose objects are gone.
void DeliveryQueue::takeNames(const Newest &newest)
{
    while (!_names.empty() &&
           (_waiting.isEmpty() || _names.front().number < _waiting.first().number)) {
        const Name next = _names.front();
        _names.pop_front();
        _nameBytes -= nameCost(next.name);
        const bool fresh = _isFresh.take(next.name);
        Delivery delivery = newest ? newest(next.name) : Delivery();
        if (!delivery.body)
            continue;
        if (fresh)
            delivery.setUid(names::freshUid());
        delivery.kind = Delivery::Value;
        delivery.object = next.name;
        delivery.conflated = true;
        delivery.resends = next.resends;
        delivery.number = next.number;
        _bytes += delivery.cost();
        _nextFrame.clear();
        _waiting.prepend(delivery);
    }
}

/// Whether the receiver knows the key of a notification, but not as the last of that object: it
/// would go on with an older value.
bool DeliveryQueue::wouldBeDropped(const Delivery &delivery) const
{
    if (!_sentKeys.contains(delivery.key))
        return false;
    for (auto sent = _sent.crbegin(); sent != _sent.crend(); ++sent) {
        const bool sameObject = sent->object == delivery.object;
        if (sent->key == delivery.key)
            return !sameObject || sent->text != delivery.body->digest();
        if (sameObject)
            break;
    }
    return true;
}

/// Receivers drop what they know: a notification whose id was used before gets another one.
void DeliveryQueue::freshenFirst()
{
    Delivery &first = _waiting.first();
    if (first.kind == Delivery::Addressed || first.sent || !wouldBeDropped(first))
        return;
    _bytes -= first.cost();
    first.setUid(names::freshUid());
    _bytes += first.cost();
}

void DeliveryQueue::remember(const Delivery &delivery)
{
    if (_sentKeys.contains(delivery.key))
        return; // the receiver does not count it again either
    _sentKeys.insert(delivery.key);
    _sent.push_back({delivery.key, delivery.object, delivery.body->digest()});
    if (_sent.size() <= MAX_REMEMBERED)
        return;
    _sentKeys.remove(_sent.front().key);
    _sent.pop_front();
}

bool DeliveryQueue::isAnswerLate(const Delivery &delivery, qint64 now) const
{
    return delivery.body->needsAnswer() && now - delivery.queuedAt >= ANSWER_WAIT_MS;
}

/// A late acknowledgement of what is about to be sent again.
bool DeliveryQueue::settleWaiting(const QString &key)
{
    const int index = indexOf(_waiting, key);
    if (index < 0 || _waiting.at(index).resends == 0)
        return false;
    forget(_waiting.takeAt(index));
    if (index == 0)
        _nextFrame.clear();
    return true;
}

/// The first \a number in flight were dropped on the other side.
void DeliveryQueue::sendAgain(int number)
{
    if (number == 0)
        return;
    _nextFrame.clear();
    for (int i = number - 1; i >= 0; --i) {
        Delivery delivery = _inFlight.takeAt(i);
        _bytesInFlight -= delivery.frameSize;
        const bool superseded =
            std::any_of(_inFlight.cbegin() + i, _inFlight.cend(),
                        [&](const Delivery &newer) { return isSuperseded(delivery, newer); });
        if (delivery.expired || superseded) {
            forget(delivery);
        } else if (++delivery.resends <= MAX_RESENDS) {
            waitAgain(delivery);
        } else {
            forget(delivery);
            _givenUp.prepend(delivery);
        }
    }
}

/// In its place, which is before everything that waits.
void DeliveryQueue::waitAgain(const Delivery &delivery)
{
    if (!delivery.conflated) {
        _waiting.prepend(delivery);
        return;
    }
    forget(delivery);
    if (_isFresh.contains(delivery.object))
        return;
    _isFresh.insert(delivery.object, false);
    _names.push_front({delivery.object, delivery.number, delivery.resends});
    _nameBytes += nameCost(delivery.object);
}

/// Whether \a newer is the notification of a later value of the same object.
bool DeliveryQueue::isSuperseded(const Delivery &older, const Delivery &newer)
{
    return older.kind == Delivery::Value && newer.kind == Delivery::Value &&
           older.object == newer.object && older.number < newer.number;
}

void DeliveryQueue::forget(const Delivery &delivery)
{
    _bytes -= delivery.cost();
    if (delivery.storedId != 0)
        _settled.append(delivery.storedId);
}

} // namespace bus
