#pragma once

#include "trelantransport.h"

#include <QtCore/QByteArray>

namespace bus
{

class TrelanMessage;
class TrelanObject;

/// Frames that are written without making maps of what is no map. Internal to the library;
/// thread-safe.
namespace requests
{

/// How an object gets its id if it has none: by genUid(), or so that it equals none of the last
/// thousand given here.
enum Uid { Generated, Unique };

/// The frame of the request that publishes \a object, which gets an id and a time if it has none.
QByteArray publish(TrelanObject object, TrelanTransport::Coding coding, Uid uid);

/// The frame of the request that sends \a message, in the coding Light. \a limit says for how many
/// milliseconds the bus may keep it; 0 is no limit.
QByteArray message(const TrelanMessage &message, qint64 limit);

} // namespace requests

} // namespace bus
