#pragma once

#include <trelanframe.h>

namespace bus::payload
{

/// \brief Takes apart what a client has sent, like TrelanFrame::decodePayload(), but refuses JSON
/// in which an object has a key twice.
///
/// Qt 5 would take the last value and lose the memory of the others, so that a client could have
/// the bus lose as much as it likes. Pure.
TrelanFrame::Payload decode(const QByteArray &payload, qint64 maxInflatedSize);

/// The first key that an object of this text has twice; null if there is none. What is no JSON may
/// have one or not.
QByteArray repeatedKey(const QByteArray &json);

} // namespace bus::payload
