#include "rules/publishorder.h"

#include <utility>

namespace bus
{

namespace
{

constexpr qint64 MAX_WAITING_BYTES = 16 * 1024 * 1024;
constexpr size_t MAX_WAITING = 10000;

} // namespace

PublishOrder::PublishOrder(Deliver deliver)
    : _deliver(std::move(deliver))
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
    taken = {Effective, publish, publish.record.cost()};
    taken.cost += publish.receivers.size() * qint64(sizeof(QString));
    taken.publish.waited = place != _first;
    _waitingBytes += taken.cost;
    proceed();
}

bool PublishOrder::isFull() const
{
    return _places.size() > MAX_WAITING || _waitingBytes > MAX_WAITING_BYTES;
}

void PublishOrder::skip(const QString &client, const QSet<QString> &objects)
{
    for (Place &place : _places) {
        if (place.publish.record.head.isStored() &&
            objects.contains(place.publish.record.head.name))
            place.publish.receivers.removeAll(client);
    }
}

PublishOrder::Place &PublishOrder::at(quint64 place)
{
    return _places[size_t(place - _first)];
}

void PublishOrder::proceed()
{
    while (!_places.empty() && _places.front().state != Expected) {
        const Place next = std::move(_places.front());
        _places.pop_front();
        ++_first;
        if (next.state == Left)
            continue;
        _waitingBytes -= next.cost;
        _deliver(next.publish);
    }
}

} // namespace bus
