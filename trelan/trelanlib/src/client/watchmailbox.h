#pragma once

#include "trelanobject.h"

#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QString>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace bus
{

/// \brief What one watch has yet to hand over, on its way into the thread of its context. Internal
/// to the library; thread-safe.
///
/// A context that is slow or blocked costs bounded memory: once many changes wait, of each stored
/// object only the newest waits, and of events the oldest are dropped.
class WatchMailbox : public QObject, public std::enable_shared_from_this<WatchMailbox>
{
    Q_OBJECT

public:
    using Changed = std::function<void(const TrelanObject &)>;
    using Removed = std::function<void(const QString &)>;

    /// To be called once: hands over to these functions in the thread of \a context. Calls \a gone
    /// when the context is deleted, unless the mailbox was closed before.
    void connectTo(const QObject *context, const Changed &changed, const Removed &removed,
                   const std::function<void()> &gone);
    /// Whether the context still exists, and the mailbox was not closed.
    bool isConnected() const;
    /// Nothing is handed over from now on.
    void close() { _isClosed = true; }

    void put(const TrelanObject &object, bool isEvent);
    void putRemoval(const QString &name);

Q_SIGNALS:
    void filled();

private:
    struct Item
    {
        enum Kind { Value, Event, Removal, Dropped } kind;
        TrelanObject object; // of a removal it has the name alone
    };

    void append(Item::Kind kind, const TrelanObject &object);
    bool replace(Item::Kind kind, const TrelanObject &object);
    void dropOldestEvent();
    std::deque<Item> take();

    std::atomic<bool> _isClosed {false};
    std::mutex _mutex; // guards the members down to the last but one
    std::deque<Item> _items;
    QHash<QString, size_t> _places; // of the last item of each stored object
    size_t _events = 0;             // among the items
    size_t _oldestEvent = 0;        // no event is before this place
    size_t _dropped = 0;            // among the items
    bool _hasLost = false;          // events, and the log does not say so yet
    std::deque<Item> _handedOver; // of the thread of the context alone, so that no mutex guards it
};

} // namespace bus
