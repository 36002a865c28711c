#pragma once

namespace trelanctl
{

/// \brief SIGINT and SIGTERM as a byte to read, for commands that have to tidy up.
///
/// The signals are handled and not blocked, since programs that are started from here would inherit
/// blocked signals. A second signal ends the process at once.
class EndSignals
{
public:
    /// Takes the signals over. Later calls do nothing.
    static void install();

    /// A descriptor that can be read as soon as a signal has come, and from then on; -1 before
    /// install().
    static int descriptor();

    static bool arrived();
};

} // namespace trelanctl
