#pragma once

#include <QtCore/QtGlobal>

namespace bus
{

/// A connection, as everybody but its socket knows it. Never used twice, and never 0.
using ConnectionId = quint64;

} // namespace bus
