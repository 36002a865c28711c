#pragma once

namespace trelanctl
{

/// \brief SIGINT and SIGTERM as a byte to read, for commands that have to tidy up.
///
/// A handler and a pipe, and no blocked signals: programs that are started from here would inherit
/// those. A second signal ends the process at once.
class EndSignals
{
public:
    /// Takes the signals over, once for the process.
    static void install();

    /// Readable as soon as one has come, and from then on; -1 before install().
    static int descriptor();

    static bool arrived();
};

} // namespace trelanctl
