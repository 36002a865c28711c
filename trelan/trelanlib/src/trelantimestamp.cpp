#include "trelantimestamp.h"

#include <utility>

namespace bus
{

namespace
{

constexpr qint64 MS_PER_S = 1000;

qint64 secondOf(qint64 milliseconds)
{
    const qint64 second = milliseconds / MS_PER_S;
    return milliseconds % MS_PER_S < 0 ? second - 1 : second;
}

/// The last text made: thousands of messages may belong to one second.
struct IsoText
{
    qint64 second = 0;
    QString text;
};
thread_local IsoText _isoText;

} // namespace

TrelanTimestamp::TrelanTimestamp(const QDateTime &time)
    : _time(time)
{}

TrelanTimestamp::TrelanTimestamp(qint64 milliseconds)
    : _milliseconds(milliseconds)
{}

TrelanTimestamp TrelanTimestamp::now()
{
    return TrelanTimestamp(QDateTime::currentMSecsSinceEpoch());
}

TrelanTimestamp::TrelanTimestamp(TrelanTimestamp &&other) noexcept
    : _time(std::move(other._time))
    , _milliseconds(std::exchange(other._milliseconds, std::nullopt))
{}

TrelanTimestamp &TrelanTimestamp::operator=(TrelanTimestamp &&other) noexcept
{
    _time = std::move(other._time);
    _milliseconds = std::exchange(other._milliseconds, std::nullopt);
    return *this;
}

bool TrelanTimestamp::operator==(const TrelanTimestamp &other) const
{
    if (_milliseconds && other._milliseconds)
        return *_milliseconds == *other._milliseconds;
    return toDateTime() == other.toDateTime();
}

bool TrelanTimestamp::operator!=(const TrelanTimestamp &other) const
{
    return !(*this == other);
}

bool TrelanTimestamp::isValid() const
{
    return _milliseconds || _time.isValid();
}

QDateTime TrelanTimestamp::toDateTime() const
{
    return _milliseconds ? QDateTime::fromMSecsSinceEpoch(*_milliseconds) : _time;
}

qint64 TrelanTimestamp::toMSecsSinceEpoch() const
{
    return _milliseconds ? *_milliseconds : _time.toMSecsSinceEpoch();
}

QString TrelanTimestamp::toIsoText() const
{
    if (!_milliseconds)
        return _time.toString(Qt::ISODate);
    const qint64 second = secondOf(*_milliseconds);
    if (_isoText.text.isEmpty() || _isoText.second != second)
        _isoText = {second, toDateTime().toString(Qt::ISODate)};
    return _isoText.text;
}

} // namespace bus
