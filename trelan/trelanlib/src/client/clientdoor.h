#pragma once

#include "client/operation.h"
#include "trelanclientsettings.h"
#include "trelanconnectionstate.h"

#include <QtCore/QStringList>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace bus
{

class ClientEngine;

/// \brief The way from any thread into the thread of a client, and what any thread may know of it.
/// Internal to the library; thread-safe.
///
/// It outlives the client for whoever holds it: a call that is answered after the client's end
/// finds the door closed.
class ClientDoor
{
public:
    using Task = std::function<void(ClientEngine &)>;

    explicit ClientDoor(const TrelanClientSettings &settings);

    /// Runs \a task in the client's thread, later; \a operation ends as NotConnected if there is no
    /// such thread any more. An operation that is past a bound ends as Refused at once.
    void post(const Operation::Ref &operation, Task task);
    void post(Task task) { post(nullptr, std::move(task)); }

    /// \name For the client's own thread
    /// @{
    void open(ClientEngine *engine);
    /// Ends what was posted and not taken. Nothing can be posted afterwards.
    void close();
    /// Runs what was posted.
    void runTasks(ClientEngine &engine);
    /// The operation has ended and does not count any more.
    void release(const Operation &operation);
    void setState(const TrelanConnectionState &state);
    void setIdle(bool idle);
    /// @}

    TrelanConnectionState state() const;
    bool waitForConnected(int milliseconds) const;
    /// Waits until everything that was asked has been answered, for so long at most.
    void waitForIdle(int milliseconds) const;

private:
    struct Posted
    {
        Operation::Ref operation;
        Task task;
    };

    TrelanFailure take(const Operation::Ref &operation, Task task);
    QString excess(const Operation &operation) const;
    void wake();

    const int _maxOperations;
    const qint64 _maxBytes;
    mutable std::mutex _mutex; // guards the members down to the condition
    std::vector<Posted> _posted;
    bool _isClosed = false;
    bool _isIdle = true;
    TrelanConnectionState _state;
    int _operations = 0;
    qint64 _bytes = 0;
    mutable std::condition_variable _changed;
    std::mutex _engineMutex; // guards the member below; taken alone
    ClientEngine *_engine = nullptr;
};

} // namespace bus
