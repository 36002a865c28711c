#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace programs
{

/// The one of \a known that was probably meant by \a word, as " (did you mean '...'?)"; empty if
/// none is close. Dashes in front do not count.
std::string didYouMean(const std::string &word, const std::vector<std::string> &known);

/// What \a app could not place, in the order of the command line.
std::vector<std::string> unexpectedWords(const CLI::App &app);
bool isOption(const std::string &word);

/// What is wrong with the command line that \a app has refused with \a error, for people. It quotes
/// words of the command line as they are.
std::string commandLineFault(const CLI::App &app, const CLI::ParseError &error);

} // namespace programs
