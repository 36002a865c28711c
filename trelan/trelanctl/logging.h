#pragma once

#include "arguments.h"

namespace trelanctl
{

/// Runs the command logs: prints the log lines that applications send to the client "logger", until
/// the end.
ExitCode showLogs(const Arguments &arguments);

} // namespace trelanctl
