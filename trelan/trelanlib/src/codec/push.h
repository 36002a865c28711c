#pragma once

#include "trelanmessage.h"
#include "trelantransport.h"

#include <QtCore/QByteArray>

#include <optional>

/// Bytes of the message channel. Internal to the library; thread-safe.
namespace bus::delivery
{

/// Takes the payload of a push apart without making a map of it. Nothing if it is anything else
/// than what a bus usually sends, be it sound or not.
std::optional<TrelanMessage> decode(const QByteArray &payload);

/// The frame that acknowledges a message.
QByteArray acknowledgement(const TrelanMessage &message, TrelanTransport::Coding coding);

} // namespace bus::delivery
