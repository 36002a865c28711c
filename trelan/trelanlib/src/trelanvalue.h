#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/QVariant>

/// What the value types have in common on the wire. Internal to the library.
namespace bus::value
{

/// SHA-1 of \a bytes as 28 characters of standard base64.
QString digest(const QByteArray &bytes);

/// The current time as decimal milliseconds since the epoch.
QString nowText();

/// A time as it travels: a string of decimal milliseconds since the epoch.
QString timeToWire(const QDateTime &dt);

/// A travelling time as local time; what is not a decimal integer in its string form is the epoch.
QDateTime timeFromWire(const QVariant &wire);

} // namespace bus::value
