#pragma once

#include <jsondom.h>

#include <QtCore/QByteArray>

#include <string_view>

/// What can be said of a JSON text without taking it apart. Pure.
namespace bus::jsontext
{

/// The first key that an object of this text has twice; null if there is none. What is no JSON may
/// have one or not.
QByteArray repeatedKey(const QByteArray &json);

struct Measure
{
    int depth = 0;       ///< levels of nesting
    qint64 indented = 0; ///< bytes that it takes inside of an envelope when it is indented
};
Measure measure(const QByteArray &json);

/// What one bracket of this level, or one comma inside, adds to the indented size.
qint64 indentation(int level);

/// A part of a text.
struct Piece
{
    std::string_view text;
    bool hasBlanks = false; ///< between its tokens
};
/// The object under a key, \a inner in the object under \a outer, both with their quotes, as it
/// stands in \a json, which has to be sound. Empty if it is not there or no object, or not found as
/// keys are escaped.
Piece member(const QByteArray &json, const json::Tokens &tokens, std::string_view outer,
             std::string_view inner);

} // namespace bus::jsontext
