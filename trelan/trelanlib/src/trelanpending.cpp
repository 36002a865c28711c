#include "trelanpending.h"

#include "client/clientlog.h"
#include "client/pendingstate.h"

#include <chrono>

namespace bus
{

namespace
{

thread_local bool _isClientThread = false;

} // namespace

TrelanPending::TrelanPending()
    : _state(PendingState::makeFailed(
          {TrelanFailure::NotConnected, QStringLiteral("no operation was begun")}))
{}

TrelanPending::TrelanPending(const std::shared_ptr<PendingState> &state)
    : _state(state)
{}

TrelanPending::TrelanPending(const TrelanPending &other) = default;
TrelanPending &TrelanPending::operator=(const TrelanPending &other) = default;
TrelanPending::~TrelanPending() = default;

bool TrelanPending::isFinished() const
{
    return _state->isFinished();
}

bool TrelanPending::isDone() const
{
    return _state->isDone();
}

TrelanFailure TrelanPending::failure() const
{
    return _state->failure();
}

bool TrelanPending::wait(int milliseconds) const
{
    return _state->wait(milliseconds);
}

void TrelanPending::whenFinished(const QObject *context,
                                 const std::function<void()> &function) const
{
    _state->whenFinished(context, function);
}

QVariant TrelanPending::value() const
{
    return _state->value();
}

TrelanPendingWatcher::TrelanPendingWatcher(const TrelanPending &pending, QObject *parent)
    : QObject(parent)
    , _pending(pending)
{
    _pending.whenFinished(this, [this] { emit finished(_pending); });
}

TrelanPendingWatcher::~TrelanPendingWatcher() = default;

TrelanPending TrelanPendingWatcher::pending() const
{
    return _pending;
}

PendingState::Ref PendingState::makeFailed(const TrelanFailure &failure)
{
    Ref state = make();
    state->fail(failure);
    return state;
}

void PendingState::finish(const QVariant &value)
{
    end(value, {});
}

void PendingState::fail(const TrelanFailure &failure)
{
    end({}, failure);
}

void PendingState::end(const QVariant &value, const TrelanFailure &failure)
{
    // Deleted below: its connections hold the continuations, and these hold this state.
    std::unique_ptr<PendingSignal> signal;
    {
        const std::lock_guard locker(_mutex);
        if (_isFinished)
            return;
        _isFinished = true;
        _value = value;
        _failure = failure;
        signal = std::move(_signal);
        // Under the lock, so that what is added later runs later. All connections are queued: no
        // continuation runs here.
        if (signal)
            emit signal->finished();
    }
    _ended.notify_all(); // unlocked, so that who waits does not wait once more
}

bool PendingState::isFinished() const
{
    const std::lock_guard locker(_mutex);
    return _isFinished;
}

bool PendingState::isDone() const
{
    const std::lock_guard locker(_mutex);
    return _isFinished && _failure.kind() == TrelanFailure::None;
}

TrelanFailure PendingState::failure() const
{
    const std::lock_guard locker(_mutex);
    return _failure;
}

QVariant PendingState::value() const
{
    const std::lock_guard locker(_mutex);
    return _value;
}

bool PendingState::wait(int milliseconds)
{
    std::unique_lock locker(_mutex);
    if (_isFinished)
        return true;
    if (isClientThread()) {
        locker.unlock();
        qCWarning(CLIENT_LOG) << "wait() in a thread of the client would wait for itself";
        return false;
    }
    return _ended.wait_for(locker, std::chrono::milliseconds(qMax(milliseconds, 0)),
                           [this] { return _isFinished; });
}

void PendingState::whenFinished(const QObject *context, const std::function<void()> &function)
{
    const std::lock_guard locker(_mutex);
    if (_isFinished) {
        QMetaObject::invokeMethod(const_cast<QObject *>(context), function, Qt::QueuedConnection);
        return;
    }
    if (!_signal)
        _signal = std::make_unique<PendingSignal>();
    QObject::connect(_signal.get(), &PendingSignal::finished, context, function,
                     Qt::QueuedConnection);
}

bool isClientThread()
{
    return _isClientThread;
}

void markClientThread()
{
    _isClientThread = true;
}

} // namespace bus
