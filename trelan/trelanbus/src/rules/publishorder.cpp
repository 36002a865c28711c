#include "rules/publishorder.h"

#include <utility>

namespace bus
{

namespace
{

constexpr qint64 MAX_WAITING_BYTES = 16 * 1024 * 1024;
constexpr size_t MAX_WAITING = 10000;
constexpr qint64 NAME_COST = 64; // bytes beside the text, measured roughly

} // namespace

bool PublishOrder::Removal::spares(const QString &client, const QString &object) const
{
    return _late.contains(client) || _skipped.value(client).contains(object);
}

PublishOrder::PublishOrder(Deliver deliver, Tell tell)
    : _deliver(std::move(deliver))
    , _tell(std::move(tell))
{}

quint64 PublishOrder::takePlace()
{
    _places.emplace_back();
    return _first + _places.size() - 1;
}

void PublishOrder::leave(quint64 place)
{
    at(place).state = Left;
    proceed();
}

void PublishOrder::takeEffect(quint64 place, const Publish &publish)
{
    Place &taken = at(place);
    taken = {Effective, publish, nullptr, publish.record.cost()};
    taken.cost += publish.receivers.size() * qint64(sizeof(QString));
    taken.publish.waited = place != _first;
    _waitingBytes += taken.cost;
    proceed();
}

void PublishOrder::takeEffect(quint64 place, Removal removal)
{
    Place &taken = at(place);
    taken.state = Effective;
    for (const QString &name : std::as_const(removal.names))
        taken.cost += NAME_COST + name.size() * qint64(sizeof(QChar));
    taken.removal = std::make_unique<Removal>(std::move(removal));
    _waitingBytes += taken.cost;
    proceed();
}

void PublishOrder::resume()
{
    _isTelling = false;
    proceed();
}

bool PublishOrder::isFull() const
{
    return _places.size() > MAX_WAITING || _waitingBytes > MAX_WAITING_BYTES;
}

void PublishOrder::skip(const QString &client, const QSet<QString> &objects)
{
    for (Place &place : _places) {
        if (place.removal)
            skip(*place.removal, client, objects);
        else if (place.publish.record.head.isStored() &&
                 objects.contains(place.publish.record.head.name))
            place.publish.receivers.removeAll(client);
    }
}

/// Notes only what matters, which is little: the client was told of objects that exist.
void PublishOrder::skip(Removal &removal, const QString &client, const QSet<QString> &objects)
{
    for (int i = removal.next; i < removal.names.size(); ++i) {
        if (objects.contains(removal.names.at(i)))
            removal._skipped[client].insert(removal.names.at(i));
    }
}

void PublishOrder::skipRemovals(const QString &client)
{
    for (Place &place : _places) {
        if (place.removal)
            place.removal->_late.insert(client);
    }
}

PublishOrder::Place &PublishOrder::at(quint64 place)
{
    return _places[size_t(place - _first)];
}

void PublishOrder::proceed()
{
    while (!_isTelling && !_places.empty() && _places.front().state != Expected) {
        if (_places.front().removal) {
            _isTelling = true;
            if (!_tell(*_places.front().removal))
                return;
            _isTelling = false;
        }
        const Place next = std::move(_places.front());
        _places.pop_front();
        ++_first;
        if (next.state == Left)
            continue;
        _waitingBytes -= next.cost;
        if (!next.removal)
            _deliver(next.publish);
    }
}

} // namespace bus
