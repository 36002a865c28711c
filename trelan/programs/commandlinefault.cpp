#include "commandlinefault.h"

#include <algorithm>
#include <numeric>

namespace programs
{

namespace
{

constexpr std::size_t MOST_TYPING_ERRORS = 2;

std::string withoutDashes(const std::string &word)
{
    const std::size_t begin = word.find_first_not_of('-');
    return begin == std::string::npos ? std::string() : word.substr(begin);
}

/// How many characters have to be inserted, left out or replaced to make \a right of \a left.
std::size_t distance(const std::string &left, const std::string &right)
{
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t(0));
    for (std::size_t i = 0; i < left.size(); ++i) {
        std::size_t diagonal = i;
        row[0] = i + 1;
        for (std::size_t j = 0; j < right.size(); ++j) {
            const std::size_t replaced = diagonal + (left[i] == right[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({row[j] + 1, diagonal + 1, replaced});
        }
    }
    return row.back();
}

std::vector<std::string> optionsOf(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::Option *option : app.get_options()) {
        if (option->get_group().empty()) // hidden from the help
            continue;
        for (const std::string &name : option->get_lnames())
            names.push_back("--" + name);
    }
    for (const CLI::App *command : app.get_subcommands()) {
        const std::vector<std::string> own = optionsOf(*command);
        names.insert(names.end(), own.begin(), own.end());
    }
    return names;
}

std::string join(const std::vector<std::string> &words, const char *one, const char *several)
{
    return (words.size() == 1 ? one : several) + CLI::detail::join(words, ", ");
}

} // namespace

std::string didYouMean(const std::string &word, const std::vector<std::string> &known)
{
    const std::string typed = withoutDashes(word);
    std::string best;
    std::size_t least = std::min(MOST_TYPING_ERRORS, typed.size() / 2) + 1;
    for (const std::string &candidate : known) {
        const std::string name = withoutDashes(candidate);
        const bool begun = typed.size() > 1 && name.compare(0, typed.size(), typed) == 0;
        const std::size_t errors = begun ? 1 : distance(typed, name);
        if (errors < least) {
            least = errors;
            best = candidate;
        }
    }
    return best.empty() ? best : " (did you mean '" + best + "'?)";
}

std::vector<std::string> unexpectedWords(const CLI::App &app)
{
    std::vector<std::string> words = app.remaining(true);
    words.erase(std::remove(words.begin(), words.end(), "--"), words.end());
    return words;
}

bool isOption(const std::string &word)
{
    return word.size() > 1 && word.front() == '-';
}

std::string commandLineFault(const CLI::App &app, const CLI::ParseError &error)
{
    std::vector<std::string> options;
    std::vector<std::string> others;
    for (const std::string &word : unexpectedWords(app)) {
        const std::string name = isOption(word) ? word.substr(0, word.find('=')) : word;
        if (isOption(word))
            options.push_back("'" + name + "'" + didYouMean(name, optionsOf(app)));
        else
            others.push_back("'" + name + "'");
    }
    // An unknown option goes first: what follows it was probably meant to be its value.
    if (!options.empty())
        return join(options, "unknown option ", "unknown options ");
    if (!others.empty())
        return join(others, "unexpected argument ", "unexpected arguments ");
    std::string text = error.what();
    const std::string option = text.substr(0, text.find(':'));
    if (dynamic_cast<const CLI::ArgumentMismatch *>(&error) == nullptr || option == text)
        return text;
    const bool isMissing = text.find(" missing") != std::string::npos;
    return option + (isMissing ? " needs a value" : " is given more than once");
}

} // namespace programs
