#pragma once

#include <QtCore/QByteArray>

#include <string_view>

/// Frames around text that is written already: header word, size line and payload. Internal to the
/// libraries; thread-safe.
namespace bus::frameformat
{

/// The header words.
constexpr std::string_view REQUEST = "[-REQUEST-]";
constexpr std::string_view REPLY = "[-REPLY-]";

/// The lines in front of a payload of \a payloadSize bytes. The payload can be appended without
/// taking memory again.
QByteArray lines(std::string_view word, int payloadSize);

/// The frame of a JSON text in the coding Light.
QByteArray light(std::string_view word, const QByteArray &json);

} // namespace bus::frameformat
