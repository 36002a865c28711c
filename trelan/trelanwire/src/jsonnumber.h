#pragma once

#include <QtCore/QtGlobal>

/// What reader and writer of JSON agree on. Internal to the libraries; pure.
namespace bus::json
{

/// The deepest nesting that is read and written here. QJsonDocument takes what is nested deeper.
constexpr int MAX_DEPTH = 128;

constexpr double INTEGERS_END = 9223372036854775808.0; // 2^63

/// Whether Qt 5 makes an integer of this number. It does of every number that a qint64 can hold,
/// however the number is written.
inline bool isInteger(double number)
{
    return number >= -INTEGERS_END && number < INTEGERS_END && double(qint64(number)) == number;
}

} // namespace bus::json
