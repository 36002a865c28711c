#pragma once

#include <trelanmessage.h>

namespace bus
{

/// A message that waits on disk.
struct StoredMessage
{
    qint64 id = 0; ///< grows with every message of a database
    TrelanMessage message;
    qint64 queuedAt = 0; ///< milliseconds since the epoch
};

} // namespace bus
