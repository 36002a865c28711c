#include "client/deadlines.h"

#include <chrono>
#include <limits>
#include <utility>

namespace bus
{

qint64 steadyNow()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

Deadlines::Deadlines(QObject *parent)
    : QObject(parent)
    , _timer(this)
{
    _timer.setSingleShot(true);
    connect(&_timer, &QTimer::timeout, this, &Deadlines::expire);
}

Deadlines::Place Deadlines::add(qint64 deadline, const std::function<void()> &expire)
{
    // Most operations have the usual time, so that their place is the last.
    const Place place = _entries.emplace_hint(_entries.end(), deadline, expire);
    if (!_timer.isActive() || deadline < _timerAt) {
        _timerAt = deadline;
        _timer.start(
            int(qBound<qint64>(0, deadline - steadyNow(), std::numeric_limits<int>::max())));
    }
    return place;
}

void Deadlines::expire()
{
    const qint64 now = steadyNow();
    while (!_entries.empty() && _entries.begin()->first <= now) {
        const std::function<void()> expire = std::move(_entries.begin()->second);
        expire(); // which removes the entry
    }
    if (_entries.empty())
        return;
    _timerAt = _entries.begin()->first;
    _timer.start(int(qBound<qint64>(0, _timerAt - now, std::numeric_limits<int>::max())));
}

} // namespace bus
