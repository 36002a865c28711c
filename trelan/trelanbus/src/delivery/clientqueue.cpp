#include "delivery/clientqueue.h"

#include "values/busnames.h"

#include <algorithm>

namespace bus
{

namespace
{

constexpr qint64 NAME_COST = 112; // bytes beside the text, measured roughly
// More than the hundred messages that a client remembers.
constexpr size_t MAX_REMEMBERED = 128;

bool hasEnded(const QueuedMessage &message, qint64 now)
{
    return message.endsAt != 0 && now >= message.endsAt;
}

int indexOf(const QList<QueuedMessage> &messages, const QString &key)
{
    const auto found =
        std::find_if(messages.cbegin(), messages.cend(),
                     [&](const QueuedMessage &message) { return message.key == key; });
    return found == messages.cend() ? -1 : int(found - messages.cbegin());
}

} // namespace

void ClientQueue::append(QueuedMessage message)
{
    message.number = ++_lastNumber;
    account(message, 1);
    _waiting.append(message);
}

void ClientQueue::appendName(const QString &name, const NameState &state)
{
    const auto known = _states.find(name);
    if (known == _states.end()) {
        _states.insert(name, state);
        _names.push_back({name, ++_lastNumber, 0});
        _nameBytes += nameCost(name);
        return;
    }
    known->fresh = known->fresh || state.fresh;
    known->now = known->now || state.now;
    if (state.removedAt != 0) {
        known->remover = state.remover;
        known->removedAt = state.removedAt;
    }
}

bool ClientQueue::hasName(const QString &name) const
{
    return _states.contains(name);
}

bool ClientQueue::hasNext() const
{
    return _inFlight.size() < MAX_IN_FLIGHT && !(_waiting.isEmpty() && _names.empty());
}

const QueuedMessage *ClientQueue::largeToEncode(qint64 now, const Newest &newest)
{
    if (!hasNext())
        return nullptr;
    takeNext(now, newest);
    if (_waiting.isEmpty() || !_nextFrame.isEmpty() ||
        _waiting.first().body->textSize() <= LARGE_TEXT || _waiting.first().body->isEncoded())
        return nullptr;
    freshenFirst();
    return &_waiting.first();
}

void ClientQueue::setFrame(const QString &key, const QByteArray &frame)
{
    if (!_waiting.isEmpty() && _nextFrame.isEmpty() && _waiting.first().key == key)
        _nextFrame = frame;
}

QByteArray ClientQueue::takeFrame(qint64 now, const Newest &newest, TrelanTransport::Coding coding)
{
    if (!hasNext())
        return {};
    takeNext(now, newest);
    if (_waiting.isEmpty())
        return {};
    // What is in flight may have to be sent again, and then comes before the marker.
    if (_waiting.first().kind == QueuedMessage::Marker && !_inFlight.isEmpty())
        return {};
    if (_nextFrame.isEmpty()) {
        freshenFirst();
        _nextFrame = _waiting.first().frame(coding);
    }
    if (!_inFlight.isEmpty() && _bytesInFlight + _nextFrame.size() > _maxBytesInFlight)
        return {};

    QueuedMessage message = _waiting.takeFirst();
    message.sentAt = now;
    message.frameSize = _nextFrame.size();
    if (!message.sent)
        remember(message);
    message.sent = true;
    if (message.conflated) {
        // If it has to be sent again, the value is read anew.
        _bytes -= message.cost();
        message.body = message.body->withoutText();
        _bytes += message.cost();
    }
    beginFlight(message);
    return std::exchange(_nextFrame, {});
}

void ClientQueue::setMode(TrelanTransport::Mode mode)
{
    _maxBytesInFlight =
        mode == TrelanTransport::Prompt ? MAX_BYTES_IN_FLIGHT_PROMPT : MAX_BYTES_IN_FLIGHT;
}

bool ClientQueue::acknowledge(const QString &sender, const QString &reciever, const QString &uid,
                              qint64 now)
{
    const QString key = QueuedMessage::keyOf(sender, reciever, uid);
    const int index = indexOf(_inFlight, key);
    if (index < 0)
        return settleWaiting(key);
    heard(now);
    const QueuedMessage settled = endFlight(index);
    forget(settled);
    for (int i = 0; i < index; ++i) // an older value must not follow this one
        _inFlight[i].expired = _inFlight.at(i).expired || isSuperseded(_inFlight.at(i), settled);
    sendAgain(index);
    return true;
}

void ClientQueue::heard(qint64 now)
{
    _heardAt = now;
}

bool ClientQueue::mayHearLate(const Bounds &bounds, bool already) const
{
    const int share = already ? 2 : 4;
    return !_inFlight.isEmpty() && _waiting.isEmpty() && _names.empty() && _storedInFlight == 0 &&
           _inFlight.size() < qMin(MAX_IN_FLIGHT, bounds.messages) / share &&
           _bytesInFlight < _maxBytesInFlight / share && _bytes < bounds.bytes / share;
}

void ClientQueue::restart()
{
    _nextFrame.clear();
    while (!_inFlight.isEmpty()) {
        const QueuedMessage message = endFlight(_inFlight.size() - 1);
        if (message.expired)
            forget(message);
        else
            waitAgain(message);
    }
}

void ClientQueue::dropNotifications()
{
    QList<QueuedMessage> kept;
    for (const QueuedMessage &message : std::as_const(_waiting)) {
        if (message.kind != QueuedMessage::Direct)
            forget(message);
        else
            kept.append(message);
    }
    _waiting = kept;
    _nextFrame.clear();
    _names.clear();
    _nameBytes = 0;
    _states.clear();
    for (QueuedMessage &message : _inFlight)
        message.expired = message.expired || message.kind != QueuedMessage::Direct;
}

void ClientQueue::clear()
{
    restart();
    dropNotifications();
    for (const QueuedMessage &message : std::as_const(_waiting))
        forget(message);
    _waiting.clear();
}

bool ClientQueue::dropOldest(QueuedMessage::Kind kind, bool keepNext)
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

void ClientQueue::checkTimes(qint64 now, qint64 lifetime)
{
    // A slow reader that acknowledges other messages is not silent.
    if (!_inFlight.isEmpty() && now - qMax(_inFlight.first().sentAt, _heardAt) >= SILENCE_MS)
        sendAgain(1);
    for (int i = _waiting.size() - 1; i >= 0; --i) {
        QueuedMessage &message = _waiting[i];
        if (message.kind != QueuedMessage::Direct)
            continue;
        const bool ended = hasEnded(message, now);
        message.outlived = now - message.queuedAt >= lifetime;
        if (!ended && !message.outlived && !isAnswerLate(message, now))
            continue;
        forget(message);
        if (ended)
            _waiting.removeAt(i);
        else
            _givenUp.prepend(_waiting.takeAt(i));
        if (i == 0)
            _nextFrame.clear();
    }
}

bool ClientQueue::hasDeadline() const
{
    return !_inFlight.isEmpty() ||
           std::any_of(_waiting.cbegin(), _waiting.cend(), [](const QueuedMessage &message) {
               return message.kind == QueuedMessage::Direct;
           });
}

QList<QueuedMessage> ClientQueue::takeGivenUp()
{
    return std::exchange(_givenUp, {});
}

QVector<qint64> ClientQueue::takeSettled()
{
    return std::exchange(_settled, {});
}

bool ClientQueue::isEmpty() const
{
    return _waiting.isEmpty() && _inFlight.isEmpty() && _names.empty();
}

int ClientQueue::count() const
{
    return _waiting.size() + _inFlight.size();
}

int ClientQueue::nameCount() const
{
    return int(_names.size());
}

int ClientQueue::markerCount() const
{
    return _markers;
}

qint64 ClientQueue::markerBytes() const
{
    return _markerBytes;
}

qint64 ClientQueue::bytes() const
{
    return _bytes;
}

qint64 ClientQueue::nameBytes() const
{
    return _nameBytes;
}

qint64 ClientQueue::nameCost(const QString &name)
{
    return NAME_COST + name.size() * qint64(sizeof(QChar));
}

/// Sees to it that the first message is the next to send.
void ClientQueue::takeNext(qint64 now, const Newest &newest)
{
    while (!_waiting.isEmpty() && hasEnded(_waiting.first(), now)) {
        forget(_waiting.takeFirst());
        _nextFrame.clear();
    }
    takeNames(newest);
}

/// Makes a message of the name whose turn has come, and skips names whose objects are gone.
void ClientQueue::takeNames(const Newest &newest)
{
    while (!_names.empty() &&
           (_waiting.isEmpty() || _names.front().number < _waiting.first().number)) {
        const Name next = _names.front();
        _names.pop_front();
        _nameBytes -= nameCost(next.name);
        const NameState state = _states.take(next.name);
        QueuedMessage message = newest(next.name, state);
        if (!message.body)
            continue;
        if (state.fresh)
            message.setUid(names::freshUid());
        message.kind = QueuedMessage::Value;
        message.object = next.name;
        message.conflated = true;
        message.now = state.now;
        message.resends = next.resends;
        message.number = next.number;
        account(message, 1);
        _nextFrame.clear();
        _waiting.prepend(message);
    }
}

/// Whether the client knows the key of this notification from another value than the last one of
/// that object. The client would drop the notification and keep an older value.
bool ClientQueue::wouldBeDropped(const QueuedMessage &message) const
{
    if (!_rememberedKeys.contains(message.key))
        return false;
    for (auto known = _remembered.crbegin(); known != _remembered.crend(); ++known) {
        const bool sameObject = known->object == message.object;
        if (known->key == message.key)
            return !sameObject || known->digest != message.body->digest();
        if (sameObject)
            break;
    }
    return true;
}

/// Gives the next notification a new id where the client would drop it because of its old one.
void ClientQueue::freshenFirst()
{
    QueuedMessage &first = _waiting.first();
    if (first.kind == QueuedMessage::Direct || first.sent || !wouldBeDropped(first))
        return;
    _bytes -= first.cost();
    first.setUid(names::freshUid());
    _bytes += first.cost();
}

void ClientQueue::remember(const QueuedMessage &message)
{
    if (_rememberedKeys.contains(message.key))
        return; // the client does not count it twice either
    _rememberedKeys.insert(message.key);
    _remembered.push_back({message.key, message.object, message.body->digest()});
    if (_remembered.size() <= MAX_REMEMBERED)
        return;
    _rememberedKeys.remove(_remembered.front().key);
    _remembered.pop_front();
}

bool ClientQueue::isAnswerLate(const QueuedMessage &message, qint64 now) const
{
    return message.body->needsAnswer() && now - message.queuedAt >= ANSWER_WAIT_MS;
}

/// Settles a message that is acknowledged late, while it waits to be sent again.
bool ClientQueue::settleWaiting(const QString &key)
{
    const int index = indexOf(_waiting, key);
    if (index < 0 || _waiting.at(index).resends == 0)
        return false;
    forget(_waiting.takeAt(index));
    if (index == 0)
        _nextFrame.clear();
    return true;
}

/// Sends the first \a number messages in flight again, since the client has dropped them.
void ClientQueue::sendAgain(int number)
{
    if (number == 0)
        return;
    _nextFrame.clear();
    for (int i = number - 1; i >= 0; --i) {
        QueuedMessage message = endFlight(i);
        const bool superseded =
            std::any_of(_inFlight.cbegin() + i, _inFlight.cend(),
                        [&](const QueuedMessage &newer) { return isSuperseded(message, newer); });
        if (message.expired || superseded) {
            forget(message);
        } else if (++message.resends <= MAX_RESENDS) {
            waitAgain(message);
        } else {
            forget(message);
            _givenUp.prepend(message);
        }
    }
}

void ClientQueue::beginFlight(const QueuedMessage &message)
{
    _inFlight.append(message);
    _bytesInFlight += message.frameSize;
    _storedInFlight += int(message.storedId != 0);
}

QueuedMessage ClientQueue::endFlight(int index)
{
    QueuedMessage message = _inFlight.takeAt(index);
    _bytesInFlight -= message.frameSize;
    _storedInFlight -= int(message.storedId != 0);
    return message;
}

/// Puts a message back to its place, which is before everything that waits.
void ClientQueue::waitAgain(const QueuedMessage &message)
{
    if (!message.conflated) {
        _waiting.prepend(message);
        return;
    }
    account(message, -1);
    nameWaitsAgain(message);
}

/// Has the name wait whose value was in flight. A name that waits already keeps its place, unless
/// the client has asked for the value: it must come before the marker that closes the values.
void ClientQueue::nameWaitsAgain(const QueuedMessage &message)
{
    const auto known = _states.find(message.object);
    if (known == _states.end()) {
        NameState state;
        state.now = message.now;
        if (message.removal) {
            state.remover = message.body->sender();
            state.removedAt = message.body->time();
        }
        _states.insert(message.object, state);
        _nameBytes += nameCost(message.object);
    } else if (message.now) {
        known->now = true;
        _names.erase(std::find_if(_names.begin(), _names.end(),
                                  [&](const Name &name) { return name.name == message.object; }));
    } else {
        return;
    }
    _names.push_front({message.object, message.number, message.resends});
}

/// Whether \a newer is the notification of a later value of the same object.
bool ClientQueue::isSuperseded(const QueuedMessage &older, const QueuedMessage &newer)
{
    return older.kind == QueuedMessage::Value && newer.kind == QueuedMessage::Value &&
           older.object == newer.object && older.number < newer.number;
}

/// Adds a message to the sums of the queue, or takes it out of them.
void ClientQueue::account(const QueuedMessage &message, int sign)
{
    const qint64 cost = sign * message.cost();
    _bytes += cost;
    if (message.kind == QueuedMessage::Marker) {
        _markers += sign;
        _markerBytes += cost;
    }
}

void ClientQueue::forget(const QueuedMessage &message)
{
    account(message, -1);
    if (message.storedId != 0)
        _settled.append(message.storedId);
}

} // namespace bus
