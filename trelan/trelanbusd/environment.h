#pragma once

#include <trelanbussettings.h>

#include <QtCore/QString>

namespace trelanbusd
{

// What the daemon is started with besides its options. The functions are for its main thread.

/// Gives \a settings the sockets that the service manager hands over: the sockets named "query" and
/// "messages", or else the first and the second. Returns what is wrong with them; empty if nothing
/// is, or if there are none.
QString takeSockets(bus::TrelanBusSettings &settings);

/// Raises the soft limit of descriptors to what \a connections need, as far as the hard limit
/// allows. Returns a warning if that is not enough; empty otherwise.
QString raiseDescriptorLimit(int connections);

/// Whether the error output is the journal. The variable JOURNAL_STREAM alone does not tell, since
/// everything that a service starts inherits it, whatever that prints to.
bool logsToJournal();

} // namespace trelanbusd
