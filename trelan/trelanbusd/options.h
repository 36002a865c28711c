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

/// What is given on the command line goes into \a options, except what the settings
/// get from finish(), since they have it in another form.
void addOptions(CLI::App &app, Options &options);
void finish(Options &options);

} // namespace trelanbusd
