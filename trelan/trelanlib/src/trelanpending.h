#pragma once

#include "trelanglobal.h"

#include "trelanfailure.h"
#include "trelanobject.h"

#include <QtCore/QMap>
#include <QtCore/QMetaType>
#include <QtCore/QObject>
#include <QtCore/QVariant>

#include <functional>
#include <memory>
#include <type_traits>

namespace bus
{

class PendingState;

/// Objects by name.
using TrelanObjects = QMap<QString, TrelanObject>;

/// \brief An operation that a TrelanClient has begun, and its outcome once it has ended.
///
/// A cheap value: copies stand for one operation, and may be used in different threads. An
/// operation always ends, done or with a TrelanFailure, and keeps its outcome. It goes on when
/// nobody holds a copy any more.
///
/// Continuations run in the thread of their context, by its event loop, and never before the
/// function that takes them has returned. None runs once the context is deleted. A continuation
/// that is added after the end runs, too.
///
/// \code
/// client.publish("room.kitchen", { { "celsius", 21.5 } })
///     .then(this, [this] { showSaved(); })
///     .onError(this, [this](const bus::TrelanFailure &failure) { show(failure.toString()); });
/// \endcode
class TRELAN_EXPORT TrelanPending
{
public:
    /// An operation that was never begun: it has ended as NotConnected.
    TrelanPending();
    TrelanPending(const TrelanPending &other);
    TrelanPending &operator=(const TrelanPending &other);
    ~TrelanPending();

    /// Whether it has ended, done or not.
    bool isFinished() const;
    /// Whether it has ended and was done.
    bool isDone() const;
    /// Why it was not done; of the kind None until it has ended.
    TrelanFailure failure() const;

    /// \brief Waits until it has ended, for so many milliseconds at most. True if it has.
    ///
    /// For threads without an event loop, since it keeps events from being handled. In the client's
    /// own threads nothing could ever end while somebody waits: there it returns false at once,
    /// and a line of the log says why.
    bool wait(int milliseconds = 30000) const;

    /// Runs \a function when it has ended, done or not.
    void whenFinished(const QObject *context, const std::function<void()> &function) const;

    /// Runs \a function, which takes nothing, when it was done.
    template <typename Function>
    TrelanPending then(const QObject *context, Function function) const
    {
        whenFinished(context, [pending = *this, function]() mutable {
            if (pending.isDone())
                function();
        });
        return *this;
    }

    /// Runs \a function, which takes the TrelanFailure, when it was not done.
    template <typename Function>
    TrelanPending onError(const QObject *context, Function function) const
    {
        whenFinished(context, [pending = *this, function]() mutable {
            if (!pending.isDone())
                function(pending.failure());
        });
        return *this;
    }

protected:
    friend class PendingState; // which makes them
    explicit TrelanPending(const std::shared_ptr<PendingState> &state);
    QVariant value() const;

private:
    std::shared_ptr<PendingState> _state;
};

/// \brief A TrelanPending that has a result.
///
/// \code
/// client.call("files", "count", { { "list", list } })
///     .then(this, [this](const QVariantMap &answer) { show(answer["n"].toInt()); });
/// \endcode
template <typename Result>
class TrelanReply : public TrelanPending
{
public:
    TrelanReply() = default;

    /// The result, or a default one until it was done.
    Result result() const { return value().template value<Result>(); }

    /// Runs \a function, which takes the result or nothing, when it was done.
    template <typename Function>
    TrelanReply then(const QObject *context, Function function) const
    {
        whenFinished(context, [reply = *this, function]() mutable {
            if (!reply.isDone())
                return;
            if constexpr (std::is_invocable_v<Function &, const Result &>)
                function(reply.result());
            else
                function();
        });
        return *this;
    }

    /// Runs \a function, which takes the TrelanFailure, when it was not done.
    template <typename Function>
    TrelanReply onError(const QObject *context, Function function) const
    {
        TrelanPending::onError(context, std::move(function));
        return *this;
    }

private:
    friend class PendingState;
    using TrelanPending::TrelanPending;
};

/// \brief Tells by a signal that an operation has ended. Lives in the thread that makes it.
///
/// \code
/// auto *watcher = new bus::TrelanPendingWatcher(client.remove("room.cellar"), this);
/// connect(watcher, &bus::TrelanPendingWatcher::finished, this, &Window::cellarRemoved);
/// \endcode
class TRELAN_EXPORT TrelanPendingWatcher : public QObject
{
    Q_OBJECT

public:
    explicit TrelanPendingWatcher(const TrelanPending &pending, QObject *parent = nullptr);
    ~TrelanPendingWatcher() override;

    TrelanPending pending() const;

Q_SIGNALS:
    /// Once, by the event loop, also if the operation had ended before the watcher was made.
    void finished(bus::TrelanPending pending);

private:
    const TrelanPending _pending;
};

} // namespace bus

Q_DECLARE_METATYPE(bus::TrelanPending)
Q_DECLARE_METATYPE(bus::TrelanObjects)
