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
};

/// What is given on the command line goes into \a options, except host and folder, which the
/// settings get from finish().
void addOptions(CLI::App &app, Options &options);
void finish(Options &options);

} // namespace trelanbusd
