#pragma once

#include "arguments.h"

namespace trelanctl
{

/// The command logs: the log lines that applications send to the client "logger", until the end.
ExitCode showLogs(const Arguments &arguments);

} // namespace trelanctl
