#pragma once

#include <trelanbussettings.h>

#include <QtCore/QString>

namespace trelanbusd
{

/// \brief What the daemon is started with besides its options. Free functions for its one thread.

/// Gives \a settings the sockets that the service manager hands over: those named "query" and
/// "messages", or else the first and the second. Returns what is wrong with them, or nothing, also
/// if there are none.
QString takeSockets(bus::TrelanBusSettings &settings);

/// Raises the soft limit of descriptors to what \a connections need, as far as the hard one allows.
/// Returns a warning if that is not enough.
QString raiseDescriptorLimit(int connections);

/// Whether the error output is the journal; the variable alone is inherited by everything that a
/// service starts, whatever it prints to.
bool logsToJournal();

} // namespace trelanbusd
