#pragma once

#include <QtCore/QByteArray>

#include <string_view>

/// What can be said of a JSON text by its bytes, which a parser does not tell. Pure.
namespace bus::jsontext
{

/// Which member of an object: there are \a before members in front of it and \a behind after it.
struct Place
{
    int before = 0;
    int behind = 0;
};

/// The value of a member as it stands in \a object, a sound text of an object that has this member.
/// Takes no time for the value itself, however large it is.
std::string_view member(std::string_view object, Place place);

/// Whether a sound text has a number other than zero that is too small for a double. Qt refuses a
/// text with such a number.
bool hasTinyNumber(std::string_view json);

/// \brief A text as long as \a json, with the same structure, for a parser that is stricter than
/// the clients; null if there is nothing to replace.
///
/// Clients that write JSON with Qt send halves of surrogate pairs, as escapes, and doubles from
/// 2^64 to 10^22 as integers. The stand-in has other characters and numbers in their place. What is
/// no JSON stays none, but for numbers that begin with zeros.
QByteArray standIn(const QByteArray &json);

} // namespace bus::jsontext
