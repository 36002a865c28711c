#pragma once

#include "trelanglobal.h"

#include <QtCore/QDateTime>
#include <QtCore/QString>

#include <optional>

namespace bus
{

/// \brief The time stamp of an object, a message or a command.
///
/// Milliseconds since the epoch, as it travels, and a QDateTime only for who asks for one: for a
/// local time the C library looks at the file of the time zone, each time anew, and that takes
/// longer than encoding a small object. A plain value; it converts from QDateTime by itself.
class TRELAN_EXPORT TrelanTimestamp
{
public:
    /// No time, as a QDateTime without one.
    TrelanTimestamp() = default;
    TrelanTimestamp(const QDateTime &time);
    explicit TrelanTimestamp(qint64 milliseconds);
    static TrelanTimestamp now();

    TrelanTimestamp(const TrelanTimestamp &other) = default;
    /// Leaves \a other without a time.
    TrelanTimestamp(TrelanTimestamp &&other) noexcept;
    ~TrelanTimestamp() = default;
    TrelanTimestamp &operator=(const TrelanTimestamp &other) = default;
    TrelanTimestamp &operator=(TrelanTimestamp &&other) noexcept;

    /// Whether both are the same moment.
    bool operator==(const TrelanTimestamp &other) const;
    bool operator!=(const TrelanTimestamp &other) const;

    bool isValid() const;
    /// What it was made from; of milliseconds it is local time.
    QDateTime toDateTime() const;
    qint64 toMSecsSinceEpoch() const;
    /// toDateTime().toString(Qt::ISODate), which ends with the seconds.
    QString toIsoText() const;

private:
    QDateTime _time;
    std::optional<qint64> _milliseconds; // in place of _time
};

} // namespace bus
