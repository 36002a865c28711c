#pragma once

#include "trelanglobal.h"

#include <QtCore/QDateTime>
#include <QtCore/QString>

#include <optional>

namespace bus
{

/// \brief The time stamp of an object, a message or a command.
///
/// Holds milliseconds since the epoch, as they travel, and makes a QDateTime when it is asked for
/// one: for local time the C library looks at the file of the time zone on every call, which takes
/// longer than encoding a small object. A plain value; QDateTime converts to it implicitly.
class TRELAN_EXPORT TrelanTimestamp
{
public:
    /// No time, as of a null QDateTime.
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

    /// Whether both name one moment.
    bool operator==(const TrelanTimestamp &other) const;
    bool operator!=(const TrelanTimestamp &other) const;

    bool isValid() const;
    /// The QDateTime it was made from, or local time if it was made from milliseconds.
    QDateTime toDateTime() const;
    qint64 toMSecsSinceEpoch() const;
    /// toDateTime().toString(Qt::ISODate), which ends with the seconds.
    QString toIsoText() const;

private:
    QDateTime _time;
    std::optional<qint64> _milliseconds; // if there are any, they count and _time does not
};

} // namespace bus
