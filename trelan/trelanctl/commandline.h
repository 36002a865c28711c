#pragma once

#include "arguments.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

#include <unistd.h>

namespace trelanctl
{

/// What the parser fills in. It knows std::string, and no QString.
struct RawArguments
{
    std::string host = "127.0.0.1";
    quint16 queryPort = bus::TrelanQueryHandler::DEFAULT_PORT;
    quint16 messagePort = bus::TrelanMessageReciever::DEFAULT_PORT;
    std::string clientName = "trelanctl-" + std::to_string(::getpid());
    std::string name;
    std::string wildCard = "*";
    std::string client;
    std::string text;
    std::string program;
    std::vector<std::string> names;
    std::vector<std::string> content;
    std::vector<std::string> programArguments;
    double timeout = 30;
    double programTimeout = 20; // less than a call waits, so that the caller hears of it
    double seconds = 10;
    bool permanent = false;
    bool notStored = false;
    bool logged = false;
    bool stored = false;
    bool json = false;
    bool verbose = false;
    bool printCompletion = false;
};

/// Adds all options and commands of the tool, of which help and completion are made too.
void addCommandLine(CLI::App &app, RawArguments &raw);

/// The command that \a app has parsed.
Arguments::Command commandOf(const CLI::App &app);

/// The names of all commands, in the order of the help.
std::vector<std::string> commandNames(const CLI::App &app);

} // namespace trelanctl
