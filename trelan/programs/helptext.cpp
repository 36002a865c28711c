#include "helptext.h"

#include <sstream>
#include <utility>

namespace programs
{

namespace
{

// The script that makes the man pages knows the column too.
constexpr std::size_t COLUMN = 30;
constexpr std::size_t GAP = 2;
constexpr std::size_t LINE_WIDTH = 80;

/// \a text with line breaks in place of blanks, so that no line but a single long word is wider.
std::string wrapped(const std::string &text, std::size_t width)
{
    std::istringstream words(text);
    std::string result;
    std::string word;
    std::size_t used = 0;
    while (words >> word) {
        const bool fits = used == 0 || used + 1 + word.size() <= width;
        if (used > 0)
            result += fits ? ' ' : '\n';
        used = fits && used > 0 ? used + 1 + word.size() : word.size();
        result += word;
    }
    return result;
}

/// A term and what it means, which begins on a line of its own if the term is long.
std::string entry(const std::string &term, const std::string &text)
{
    std::string result = "  " + term;
    const bool fits = result.size() + GAP <= COLUMN;
    result += fits ? std::string(COLUMN - result.size(), ' ') : "\n" + std::string(COLUMN, ' ');
    for (const char character : wrapped(text, LINE_WIDTH - COLUMN)) {
        result += character;
        if (character == '\n')
            result += std::string(COLUMN, ' ');
    }
    return result + "\n";
}

} // namespace

HelpFormatter::HelpFormatter()
{
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "COMMAND");
}

/// The parser's own text has two empty lines between some sections.
std::string HelpFormatter::make_help(const CLI::App *app, std::string name,
                                     CLI::AppFormatMode mode) const
{
    return CLI::detail::find_and_replace(Formatter::make_help(app, std::move(name), mode), "\n\n\n",
                                         "\n\n");
}

std::string HelpFormatter::make_option(const CLI::Option *option, bool isPositional) const
{
    return entry(make_option_name(option, isPositional) + make_option_opts(option),
                 option->get_description());
}

std::string HelpFormatter::make_option_opts(const CLI::Option *option) const
{
    if (option->get_type_size() == 0) // a flag
        return {};
    std::string text;
    if (!option->get_positional()) {
        const std::string type = option->get_type_name();
        text += " " + type.substr(0, type.find(':')); // behind it the parser names its checks
    }
    if (!option->get_default_str().empty())
        text += " [" + option->get_default_str() + "]";
    else if (option->get_required() && !option->get_positional())
        text += " (required)";
    return text;
}

std::string HelpFormatter::make_description(const CLI::App *app) const
{
    return wrapped(app->get_description(), LINE_WIDTH) + "\n";
}

std::string HelpFormatter::make_subcommand(const CLI::App *command) const
{
    return entry(command->get_name(), command->get_description());
}

std::string helpSection(const std::string &title, const std::vector<HelpEntry> &entries)
{
    std::string section = "\n" + title + ":\n";
    for (const HelpEntry &each : entries)
        section += entry(each.term, each.text);
    return section;
}

} // namespace programs
