#include "arguments.h"

#include "commandline.h"
#include "completion.h"
#include "terminaltext.h"

#include <commandlinefault.h>

#include <QtCore/QSet>
#include <QtCore/QTextCodec>

#include <cmath>

namespace trelanctl
{

namespace
{

const double MS_PER_S = 1000;

// CLI11 takes a word in brackets for a list and "++" for the end of a command, and both are good
// names and wildcards. A mark in front hides such a word from CLI11 and is taken off afterwards.
const char MARK = '\x1f';

std::string marked(const QByteArray &word)
{
    const bool special = word.startsWith('[') || word.startsWith(MARK) || word == "++";
    return (special ? std::string(1, MARK) : std::string()) + word.toStdString();
}

QString unmarked(const std::string &word)
{
    return QString::fromStdString(!word.empty() && word.front() == MARK ? word.substr(1) : word);
}

QStringList toList(const std::vector<std::string> &texts)
{
    QStringList list;
    for (const std::string &text : texts)
        list.append(unmarked(text));
    return list;
}

Arguments toArguments(const CLI::App &app, const RawArguments &raw)
{
    Arguments arguments;
    arguments.command = commandOf(app);
    arguments.name = unmarked(raw.name);
    arguments.wildCard = unmarked(raw.wildCard);
    const bool waits = arguments.command == Arguments::Wait;
    arguments.names = waits ? QStringList(arguments.wildCard) : toList(raw.names);
    arguments.content = toList(raw.content);
    arguments.client = unmarked(raw.client);
    arguments.text = unmarked(raw.text);
    arguments.stored = raw.stored;
    arguments.program = unmarked(raw.program);
    arguments.programArguments = toList(raw.programArguments);
    const bool serving = arguments.command == Arguments::Serve;
    arguments.timeoutMs = int(std::lround((serving ? raw.programTimeout : raw.timeout) * MS_PER_S));
    arguments.seconds = raw.seconds;
    arguments.permanent = raw.permanent;
    arguments.notStored = raw.notStored;
    arguments.logged = raw.logged;
    arguments.host = unmarked(raw.host);
    arguments.queryPort = raw.queryPort;
    arguments.messagePort = raw.messagePort;
    arguments.clientName = unmarked(raw.clientName);
    arguments.json = raw.json;
    arguments.verbose = raw.verbose;
    return arguments;
}

ParsedArguments usageError(const QString &text)
{
    ParsedArguments parsed;
    parsed.exitCode = Usage;
    parsed.text = text + QStringLiteral("; see trelanctl --help");
    return parsed;
}

ParsedArguments completion(const CLI::App &app)
{
    ParsedArguments parsed;
    parsed.text = completionScript(app);
    return parsed;
}

/// What to say of \a word, which stands where a command should; empty if there is nothing.
QString noCommandText(const CLI::App &app, const std::string &word)
{
    const std::vector<std::string> names = commandNames(app);
    const QString expected = QString::fromStdString(CLI::detail::join(names, ", "));
    if (word.empty())
        return QStringLiteral("a command is expected: ") + expected;
    return QStringLiteral("'%1' is no command%2; there are %3")
        .arg(QString::fromStdString(word),
             QString::fromStdString(programs::didYouMean(word, names)), expected);
}

QString faultText(const CLI::App &app, const CLI::ParseError &error)
{
    const std::vector<std::string> words = programs::unexpectedWords(app);
    const std::string word = words.empty() ? std::string() : words.front();
    QString text = QString::fromStdString(programs::commandLineFault(app, error));
    if (app.get_subcommands().empty() && !programs::isOption(word) &&
        dynamic_cast<const CLI::RequiredError *>(&error) != nullptr)
        text = noCommandText(app, word);
    return text.remove(QLatin1Char(MARK));
}

/// What is wrong with words that are right one by one; empty if nothing is.
QString conflict(const Arguments &arguments)
{
    static const QSet<int> NEEDS_BOTH {Arguments::Watch, Arguments::Wait, Arguments::Call,
                                       Arguments::Serve, Arguments::Logs, Arguments::Bench};
    if (NEEDS_BOTH.contains(arguments.command) && arguments.queryPort == arguments.messagePort) {
        return QStringLiteral("--query-port and --msg-port are both %1, and each channel of a bus "
                              "has a port of its own")
            .arg(arguments.queryPort);
    }
    return {};
}

/// Other bytes would reach the bus as other characters than were meant.
bool isUtf8(const QByteArray &bytes)
{
    QTextCodec::ConverterState state;
    QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

} // namespace

ParsedArguments parseArguments(const QList<QByteArray> &argv)
{
    std::vector<std::string> words; // reversed, since CLI11 takes them from the end
    for (const QByteArray &word : argv) {
        if (!isUtf8(word)) {
            return usageError(QStringLiteral("the argument '%1' is no valid UTF-8")
                                  .arg(terminal::escaped(QString::fromLatin1(word))));
        }
        words.insert(words.begin(), marked(word));
    }

    RawArguments raw;
    CLI::App app("Shows and changes what is on a Trelan bus, and talks to its clients.",
                 "trelanctl");
    addCommandLine(app, raw);

    ParsedArguments parsed;
    try {
        app.parse(words);
    } catch (const CLI::CallForVersion &version) {
        parsed.text = QString::fromUtf8(version.what());
        return parsed;
    } catch (const CLI::Success &) {
        parsed.text = QString::fromStdString(app.help()).trimmed();
        return parsed;
    } catch (const CLI::ParseError &error) {
        if (raw.printCompletion)
            return completion(app);
        return usageError(terminal::escaped(faultText(app, error)));
    }
    parsed.arguments = toArguments(app, raw);
    const QString fault = conflict(parsed.arguments);
    if (!fault.isEmpty())
        return usageError(fault);
    parsed.run = true;
    return parsed;
}

} // namespace trelanctl
