#include "client/watchmailbox.h"

#include "client/clientlog.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>

#include <utility>

namespace bus
{

namespace
{

constexpr size_t MAX_ITEMS = 1000; // that wait before values are left out
constexpr size_t MAX_EVENTS = 1000;

} // namespace

void WatchMailbox::connectTo(const QObject *context, const Changed &changed, const Removed &removed,
                             const std::function<void()> &gone)
{
    const std::weak_ptr<WatchMailbox> self(shared_from_this());
    // Goes with the connection, and so with the context.
    const std::shared_ptr<void> end(nullptr, [self, gone](void *) {
        const std::shared_ptr<WatchMailbox> mailbox = self.lock();
        if (mailbox && !mailbox->_isClosed.exchange(true))
            gone();
    });
    const auto handOver = [self, end, alive = QPointer<const QObject>(context), changed, removed] {
        // Each function may end the watch, or delete the context.
        const std::shared_ptr<WatchMailbox> mailbox = self.lock();
        if (!mailbox)
            return;
        // What a function that runs an event loop has left over comes before what has come since.
        std::deque<Item> &items = mailbox->_handedOver;
        for (Item &item : mailbox->take())
            items.push_back(std::move(item));
        while (!items.empty()) {
            const Item item = std::move(items.front());
            items.pop_front();
            if (mailbox->_isClosed || !alive)
                return;
            if (item.kind == Item::Removal && removed)
                removed(item.object.name());
            else if (item.kind == Item::Value || item.kind == Item::Event)
                changed(item.object);
        }
    };
    connect(this, &WatchMailbox::filled, context, handOver, Qt::QueuedConnection);
}

bool WatchMailbox::isConnected() const
{
    return !_isClosed && isSignalConnected(QMetaMethod::fromSignal(&WatchMailbox::filled));
}

void WatchMailbox::put(const TrelanObject &object, bool isEvent)
{
    append(isEvent ? Item::Event : Item::Value, object);
}

void WatchMailbox::putRemoval(const QString &name)
{
    TrelanObject gone {TrelanTimestamp()};
    gone.setName(name);
    append(Item::Removal, gone);
}

void WatchMailbox::append(Item::Kind kind, const TrelanObject &object)
{
    bool isFirst = false;
    {
        const std::lock_guard locker(_mutex);
        if (_items.size() >= MAX_ITEMS && replace(kind, object))
            return;
        isFirst = _items.empty();
        if (kind == Item::Event) {
            if (++_events > MAX_EVENTS)
                dropOldestEvent();
        } else {
            _places.insert(object.name(), _items.size());
        }
        _items.push_back({kind, object});
    }
    if (isFirst)
        emit filled();
}

/// Puts the value in the place of the one before that still waits, if there is one.
bool WatchMailbox::replace(Item::Kind kind, const TrelanObject &object)
{
    const auto older = _places.constFind(object.name());
    if (kind == Item::Event || older == _places.constEnd())
        return false;
    _items[*older] = {kind, object};
    return true;
}

/// Leaves a gap, since places count from the beginning; once most of the items are gaps, they go.
void WatchMailbox::dropOldestEvent()
{
    while (_items[_oldestEvent].kind != Item::Event)
        ++_oldestEvent;
    _items[_oldestEvent] = {Item::Dropped, TrelanObject(TrelanTimestamp())};
    --_events;
    _hasLost = true;
    if (++_dropped <= MAX_EVENTS + _items.size() / 2)
        return;
    std::deque<Item> left;
    _places.clear();
    for (const Item &item : _items) {
        if (item.kind == Item::Dropped)
            continue;
        if (item.kind != Item::Event)
            _places.insert(item.object.name(), left.size());
        left.push_back(item);
    }
    _items.swap(left);
    _oldestEvent = 0;
    _dropped = 0;
}

std::deque<WatchMailbox::Item> WatchMailbox::take()
{
    const std::lock_guard locker(_mutex);
    if (std::exchange(_hasLost, false))
        qCWarning(CLIENT_LOG) << "events are lost, since a watch does not take them in time";
    _places.clear();
    _events = 0;
    _oldestEvent = 0;
    _dropped = 0;
    return std::exchange(_items, {});
}

} // namespace bus
