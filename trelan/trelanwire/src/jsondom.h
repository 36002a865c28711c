#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QVariantMap>

#include <simdjson.h>

#include <functional>
#include <string_view>

/// Parsed JSON, for code that needs no map of it or looks at it first. Internal to the libraries;
/// thread-safe.
namespace bus::json
{

/// The largest texts that are parsed.
struct Limits
{
    size_t depth; ///< levels of nesting
    int bytes;
};

/// Parses \a text and calls \a read with its root, which is valid until \a read returns or this
/// thread parses something else. Returns why the text cannot be parsed; \a read is not called then.
simdjson::error_code parse(const QByteArray &text, const Limits &limits,
                           const std::function<void(simdjson::dom::element)> &read);

/// Parses \a text and returns what \a read makes of its root. False without a call if only Qt may
/// judge the text, since it is nested deeply, very long, or no JSON.
bool parse(const QByteArray &text, const std::function<bool(simdjson::dom::element)> &read);

/// The text of a parsed string. Quicker than Qt where it is ASCII, as most are.
QString toText(std::string_view utf8);

/// Makes of a parsed text what read() makes of the text. False if it is left to Qt; \a object may
/// hold anything then.
bool convert(const QByteArray &text, simdjson::dom::element root, QVariantMap &object);

} // namespace bus::json
