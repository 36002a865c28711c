#pragma once

#include <QtCore/QtGlobal>

/// Limits that the reader and the writer of JSON have in common. Internal to the libraries; pure.
namespace bus::json
{

/// The deepest nesting that is read and written here. What is nested deeper is left to
/// QJsonDocument.
constexpr int MAX_DEPTH = 128;

constexpr double INTEGERS_END = 9223372036854775808.0; // 2^63

/// Whether Qt 5 makes an integer of \a number. It does so of every whole number that a qint64 can
/// hold, even if the text has a point or an exponent.
inline bool isInteger(double number)
{
    return number >= -INTEGERS_END && number < INTEGERS_END && double(qint64(number)) == number;
}

} // namespace bus::json
