#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QVariantMap>

#include <simdjson.h>

#include <functional>

/// Parsed JSON, for those who need no map of it, or look at it before. Internal to the libraries;
/// thread-safe.
namespace bus::json
{

/// Has \a read look at the parsed text, which is valid until it returns, or anything else is parsed
/// on this thread. False if it says so, or if only Qt may judge the text: it is nested deeply, very
/// long, or no JSON.
bool parse(const QByteArray &text,
                         const std::function<bool(simdjson::dom::element)> &read);

/// Where the tokens of a text begin: its brackets, commas and colons, its strings, keys among them,
/// and its other values.
struct Tokens
{
    const quint32 *positions = nullptr;
    size_t count = 0;
};

/// The same with the tokens, which the parser has found anyway.
bool
parse(const QByteArray &text,
      const std::function<bool(simdjson::dom::element, const Tokens &tokens)> &read);

/// What read() makes of a text that is parsed already. False if it is left to Qt; \a object may
/// hold anything then.
bool convert(const QByteArray &text, simdjson::dom::element root,
                           QVariantMap &object);

} // namespace bus::json
