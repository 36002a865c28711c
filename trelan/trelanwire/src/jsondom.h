#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QVariantMap>

#include <simdjson.h>

#include <functional>

/// Parsed JSON, for code that needs no map of it or looks at it first. Internal to the libraries;
/// thread-safe.
namespace bus::json
{

/// Parses \a text and calls \a read with its root, which is valid until \a read returns or this
/// thread parses something else. Returns what \a read returns; false without a call if only Qt may
/// judge the text, since it is nested deeply, very long, or no JSON.
bool parse(const QByteArray &text, const std::function<bool(simdjson::dom::element)> &read);

/// Where the tokens of a text begin: its brackets, commas and colons, its strings, keys among them,
/// and its other values.
struct Tokens
{
    const quint32 *positions = nullptr;
    size_t count = 0;
};

/// Parses \a text and calls \a read with its root and with its tokens.
bool parse(const QByteArray &text,
           const std::function<bool(simdjson::dom::element, const Tokens &tokens)> &read);

/// Makes of a parsed text what read() makes of the text. False if it is left to Qt; \a object may
/// hold anything then.
bool convert(const QByteArray &text, simdjson::dom::element root, QVariantMap &object);

} // namespace bus::json
