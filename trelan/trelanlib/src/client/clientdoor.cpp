#include "client/clientdoor.h"

#include "client/clientengine.h"
#include "client/clientlog.h"
#include "trelanerror.h"

#include <chrono>

namespace bus
{

namespace
{

const char *const OWN_THREAD = "waiting in a thread of the client would wait for itself";

TrelanFailure closedFailure()
{
    return {TrelanFailure::NotConnected, QStringLiteral("the client has ended")};
}

} // namespace

ClientDoor::ClientDoor(const TrelanClientSettings &settings)
    : _maxOperations(settings.maxOperations())
    , _maxBytes(settings.maxBytes())
{}

void ClientDoor::post(const Operation::Ref &operation, Task task)
{
    const TrelanFailure failure = take(operation, std::move(task));
    if (failure.kind() != TrelanFailure::None && operation)
        operation->state->fail(failure);
}

TrelanFailure ClientDoor::take(const Operation::Ref &operation, Task task)
{
    {
        const std::lock_guard locker(_mutex);
        if (_isClosed)
            return closedFailure();
        if (operation) {
            const QString fault = excess(*operation);
            if (!fault.isEmpty())
                return {TrelanFailure::Refused, fault, TrelanError::StorageAccessError};
            ++_operations;
            _bytes += operation->cost;
        }
        _isIdle = false;
        _posted.push_back({operation, std::move(task)});
        if (_posted.size() > 1)
            return {};
    }
    wake();
    return {};
}

/// Has the tasks run. Without the lock of the tasks, which the woken thread needs at once.
void ClientDoor::wake()
{
    const std::lock_guard locker(_engineMutex);
    if (_engine)
        _engine->wake();
}

/// What is past a bound, for people; empty if nothing is. A single large operation is let in, so
/// that the bus judges it.
QString ClientDoor::excess(const Operation &operation) const
{
    if (_operations >= _maxOperations)
        return QStringLiteral("%1 operations are on their way already").arg(_operations);
    if (_operations > 0 && _bytes + operation.cost > _maxBytes)
        return QStringLiteral("operations of %1 bytes are on their way already").arg(_bytes);
    return {};
}

void ClientDoor::open(ClientEngine *engine)
{
    {
        const std::lock_guard locker(_engineMutex);
        _engine = engine;
    }
    wake(); // something may have been posted before
}

void ClientDoor::close()
{
    {
        const std::lock_guard locker(_engineMutex);
        _engine = nullptr;
    }
    std::vector<Posted> left;
    {
        const std::lock_guard locker(_mutex);
        _isClosed = true;
        _isIdle = true;
        left.swap(_posted);
        _changed.notify_all();
    }
    for (const Posted &posted : left) {
        if (posted.operation)
            posted.operation->state->fail(closedFailure());
    }
}

void ClientDoor::runTasks(ClientEngine &engine)
{
    std::vector<Posted> posted;
    {
        const std::lock_guard locker(_mutex);
        posted.swap(_posted);
    }
    for (const Posted &next : posted)
        next.task(engine);
}

void ClientDoor::release(const Operation &operation)
{
    const std::lock_guard locker(_mutex);
    --_operations;
    _bytes -= operation.cost;
}

void ClientDoor::setState(const TrelanConnectionState &state)
{
    const std::lock_guard locker(_mutex);
    _state = state;
    _changed.notify_all();
}

void ClientDoor::setIdle(bool idle)
{
    const std::lock_guard locker(_mutex);
    _isIdle = idle && _posted.empty();
    if (_isIdle)
        _changed.notify_all();
}

TrelanConnectionState ClientDoor::state() const
{
    const std::lock_guard locker(_mutex);
    return _state;
}

bool ClientDoor::waitForConnected(int milliseconds) const
{
    if (isClientThread()) {
        qCWarning(CLIENT_LOG) << OWN_THREAD;
        return false;
    }
    std::unique_lock locker(_mutex);
    return _changed.wait_for(locker, std::chrono::milliseconds(qMax(milliseconds, 0)),
                             [this] { return _state.isConnected(); });
}

void ClientDoor::waitForIdle(int milliseconds) const
{
    std::unique_lock locker(_mutex);
    _changed.wait_for(locker, std::chrono::milliseconds(milliseconds), [this] { return _isIdle; });
}

} // namespace bus
