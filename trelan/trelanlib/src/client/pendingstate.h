#pragma once

#include "trelanpending.h"

#include <QtCore/QObject>

#include <condition_variable>
#include <memory>
#include <mutex>

namespace bus
{

/// Emits finished() once, for the continuations of one operation. Internal to the library.
class PendingSignal : public QObject
{
    Q_OBJECT

Q_SIGNALS:
    void finished();
};

/// \brief What the copies of a TrelanPending share. Internal to the library; thread-safe.
///
/// The first end counts, and any later one is ignored: an operation whose time is over may still be
/// answered.
class PendingState : public std::enable_shared_from_this<PendingState>
{
public:
    using Ref = std::shared_ptr<PendingState>;

    static Ref make() { return std::make_shared<PendingState>(); }
    /// A state that has ended already.
    static Ref makeFailed(const TrelanFailure &failure);

    TrelanPending pending() { return TrelanPending(shared_from_this()); }
    template <typename Result>
    TrelanReply<Result> reply()
    {
        return TrelanReply<Result>(shared_from_this());
    }

    void finish(const QVariant &value = {});
    void fail(const TrelanFailure &failure);

    bool isFinished() const;
    bool isDone() const;
    TrelanFailure failure() const;
    QVariant value() const;
    bool wait(int milliseconds);
    void whenFinished(const QObject *context, const std::function<void()> &function);

private:
    void end(const QVariant &value, const TrelanFailure &failure);

    mutable std::mutex _mutex; // guards the members below
    std::condition_variable _ended;
    bool _isFinished = false;
    QVariant _value;
    TrelanFailure _failure;
    std::unique_ptr<PendingSignal> _signal; // made for the first continuation
};

/// Whether the calling thread is one of a client's own. Set once by such a thread.
bool isClientThread();
void markClientThread();

} // namespace bus
