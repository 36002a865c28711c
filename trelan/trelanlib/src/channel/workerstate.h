#pragma once

#include "trelanconnectionstate.h"

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>

namespace bus
{

/// \brief The state of a worker or a controller, which any thread may ask for. Internal to the
/// library; thread-safe.
class WorkerState
{
public:
    TrelanConnectionState get() const
    {
        const QMutexLocker locker(&_mutex);
        return _state;
    }

    /// False if the state says that already: it keeps its time then.
    bool set(const TrelanConnectionState &state)
    {
        const QMutexLocker locker(&_mutex);
        if (_state.isLike(state))
            return false;
        _state = state;
        return true;
    }

private:
    mutable QMutex _mutex; // guards the state
    TrelanConnectionState _state;
};

} // namespace bus
