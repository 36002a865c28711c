#pragma once

#include <trelanbussettings.h>

#include <optional>
#include <string>

namespace trelanbusd
{

enum ExitCode { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

struct Options
{
    bus::TrelanBusSettings settings;
    std::string host = "127.0.0.1";
    std::string audience = "users";
    std::string dataFolder;
    std::string portFile;
    std::string logLevel = "info";
    int messageLifetime = 60 * 60; ///< in seconds
};

/// Fills in \a options from the command line. Prints help, version, or what is wrong, and returns
/// the exit code to end with; nothing if the daemon is to run.
std::optional<ExitCode> readOptions(int argc, char **argv, Options &options);

} // namespace trelanbusd
