#pragma once

#include "trelanmessage.h"
#include "trelantransport.h"

#include <QtCore/QByteArray>

#include <optional>

/// Frames by which the bus hands a message over, and their acknowledgements. Internal to the
/// library; thread-safe.
namespace bus::pushes
{

/// Takes the payload of a push apart without making a map of it. Nothing if the payload is unusual,
/// be it sound or not.
std::optional<TrelanMessage> decode(const QByteArray &payload);

/// The frame that acknowledges a message.
QByteArray acknowledgement(const TrelanMessage &message, TrelanTransport::Coding coding);

} // namespace bus::pushes
