#pragma once

#include <QtCore/QtGlobal>

namespace bus
{

/// The number of a connection, by which other classes know it. It is never used twice and never 0.
using ConnectionId = quint64;

} // namespace bus
