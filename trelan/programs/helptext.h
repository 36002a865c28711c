#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace programs
{

/// \brief Writes help for people: values are called by the words given with type_name(), defaults
/// stand in brackets, and long texts are wrapped to the width of a terminal.
class HelpFormatter : public CLI::Formatter
{
public:
    HelpFormatter();

    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override;
    std::string make_description(const CLI::App *app) const override;
    std::string make_option(const CLI::Option *option, bool isPositional) const override;
    std::string make_option_opts(const CLI::Option *option) const override;
    std::string make_subcommand(const CLI::App *command) const override;
};

struct HelpEntry
{
    std::string term;
    std::string text;
};

/// A section for the footer of a help text, laid out like the options above it.
std::string helpSection(const std::string &title, const std::vector<HelpEntry> &entries);

} // namespace programs
