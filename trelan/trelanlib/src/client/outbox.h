#pragma once

#include "client/operation.h"

#include <QtCore/QHash>
#include <QtCore/QString>

#include <deque>

namespace bus
{

/// \brief The operations that wait for a connection, in order; of a stored object the newest value.
/// Internal to the library; pure, one thread.
///
/// What has ended meanwhile stays in its place, and is skipped when its turn comes.
class Outbox
{
public:
    /// Returns the publish that this one replaces, if one waits.
    Operation::Ref append(const Operation::Ref &operation)
    {
        Operation::Ref replaced;
        if (operation->isStoredPublish()) {
            replaced = _publishes.value(operation->storedName);
            _publishes.insert(operation->storedName, operation);
        }
        _waiting.push_back(operation);
        if (_waiting.size() > 2 * _sizeWithoutEnded + SLACK)
            dropEnded();
        return replaced;
    }

    /// The publish of this stored object that waits, if one does; its place is for it no more.
    Operation::Ref takePublish(const QString &name) { return _publishes.take(name); }

    bool isEmpty() const { return _waiting.empty(); }

    /// The next operation that has not ended; null if there is none.
    Operation::Ref takeNext()
    {
        while (!_waiting.empty()) {
            Operation::Ref next = _waiting.front();
            _waiting.pop_front();
            if (next->isStoredPublish() && _publishes.value(next->storedName) == next)
                _publishes.remove(next->storedName);
            if (!next->isOver)
                return next;
        }
        _sizeWithoutEnded = 0;
        return {};
    }

private:
    static constexpr size_t SLACK = 100;

    void dropEnded()
    {
        std::deque<Operation::Ref> left;
        for (const Operation::Ref &operation : _waiting) {
            if (!operation->isOver)
                left.push_back(operation);
            else if (_publishes.value(operation->storedName) == operation)
                _publishes.remove(operation->storedName);
        }
        _waiting.swap(left);
        _sizeWithoutEnded = _waiting.size();
    }

    std::deque<Operation::Ref> _waiting;
    QHash<QString, Operation::Ref> _publishes; // of stored objects, by name
    size_t _sizeWithoutEnded = 0;              // when that was last known
};

} // namespace bus
