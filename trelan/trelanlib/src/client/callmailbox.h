#pragma once

#include "trelancall.h"

#include <QtCore/QObject>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace bus
{

/// \brief The calls of one served command on their way into the thread of its context. Internal to
/// the library; thread-safe.
///
/// Calls whose context is deleted before it gets at them are let go, which answers them.
class CallMailbox : public QObject, public std::enable_shared_from_this<CallMailbox>
{
    Q_OBJECT

public:
    using Function = std::function<void(const TrelanCall &)>;

    /// To be called once: hands calls to \a function in the thread of \a context.
    void connectTo(const QObject *context, const Function &function);
    /// Whether the context still exists.
    bool isConnected() const;
    void put(const TrelanCall &call);

Q_SIGNALS:
    void filled();

private:
    std::vector<TrelanCall> take();

    std::mutex _mutex; // guards the calls
    std::vector<TrelanCall> _calls;
};

} // namespace bus
