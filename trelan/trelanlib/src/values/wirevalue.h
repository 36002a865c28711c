#pragma once

#include "trelantimestamp.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariant>

/// Helpers for the wire forms of the value types. Internal to the library.
namespace bus::value
{

/// SHA-1 of \a first and \a second, one behind the other, as 28 characters of standard base64.
QString digest(const QByteArray &first, const QByteArray &second = QByteArray());

/// The current time as decimal milliseconds since the epoch.
QString nowText();

/// A time as it travels: a string of decimal milliseconds since the epoch.
QString timeToWire(const TrelanTimestamp &time);

/// The time in \a wire, a decimal integer or the text of one; anything else is the epoch.
TrelanTimestamp timeFromWire(const QVariant &wire);

} // namespace bus::value
