#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QVariantMap>

#include <simdjson.h>

#include <functional>

/// Parsed JSON, for those who need no map of it, or look at it before. Internal to the libraries;
/// thread-safe.
namespace bus::json
{

/// The largest texts that are parsed.
struct Limits
{
    size_t depth; ///< levels of nesting
    int bytes;
};

/// Has \a read look at the parsed text, which is valid until \a read returns or anything else is
/// parsed on this thread. Returns why the text cannot be parsed; \a read is not called then.
simdjson::error_code parse(const QByteArray &text, const Limits &limits,
                           const std::function<void(simdjson::dom::element)> &read);

/// Has \a read look at the parsed text. False if \a read says so, or if only Qt may judge the text:
/// it is nested deeply, very long, or no JSON.
bool parse(const QByteArray &text, const std::function<bool(simdjson::dom::element)> &read);

/// What read() makes of a text that is parsed already. False if it is left to Qt; \a object may
/// hold anything then.
bool convert(const QByteArray &text, simdjson::dom::element root, QVariantMap &object);

} // namespace bus::json
