#pragma once

#include "trelantransport.h"

#include <QtCore/QByteArray>

namespace bus
{

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

} // namespace requests

} // namespace bus
