#include "values/buslog.h"

namespace bus
{

Q_LOGGING_CATEGORY(BUS_LOG, "trelan.bus")

namespace
{
constexpr qint64 INTERVAL_MS = 60000;
constexpr int MAX_REMEMBERED = 1000;
} // namespace

bool WarningLimiter::allows(const QString &what)
{
    if (_warned.size() >= MAX_REMEMBERED)
        forgetOld();
    const auto found = _warned.constFind(what);
    if (found != _warned.constEnd() && !found->hasExpired(INTERVAL_MS))
        return false;
    if (found == _warned.constEnd() && _warned.size() >= MAX_REMEMBERED)
        return false;
    _warned[what].start();
    return true;
}

void WarningLimiter::forgetOld()
{
    for (auto entry = _warned.begin(); entry != _warned.end();) {
        if (entry->hasExpired(INTERVAL_MS))
            entry = _warned.erase(entry);
        else
            ++entry;
    }
}

} // namespace bus
