#pragma once

#include <trelanbussettings.h>

#include <CLI/CLI.hpp>

#include <string>

namespace trelanbusd
{

struct Options
{
    bus::TrelanBusSettings settings;
    std::string host = "127.0.0.1";
    std::string dataFolder;
    std::string portFile;
    std::string logLevel = "info";
    int messageLifetime = 60 * 60; ///< in seconds
};

/// Makes \a app fill in \a options.
void addOptions(CLI::App &app, Options &options);
/// Completes the settings with the options that they hold in another form. To be called after the
/// command line is parsed.
void finish(Options &options);

} // namespace trelanbusd
