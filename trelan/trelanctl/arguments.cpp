#include "arguments.h"

#include "commandline.h"
#include "completion.h"
#include "terminaltext.h"

#include <QtCore/QTextCodec>

#include <cmath>

namespace trelanctl
{

namespace
{

const double MS_PER_S = 1000;

// CLI11 takes a word in brackets for a list and "++" for the end of a command; both are good names
// and wildcards. A mark before them, taken off again afterwards, hides them from it.
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
    arguments.names = toList(raw.names);
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

/// For what was given where a command should be.
QString noCommandText(const CLI::App &app)
{
    const std::vector<std::string> words = app.remaining();
    if (words.empty())
        return QStringLiteral("a command is expected: ") + commandNames(app);
    return QStringLiteral("'%1' is no command; expected %2")
        .arg(terminal::escaped(unmarked(words.front())), commandNames(app));
}

/// Bytes that are no UTF-8 would reach the bus as other characters than were meant.
bool isUtf8(const QByteArray &bytes)
{
    QTextCodec::ConverterState state;
    QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

} // namespace

ParsedArguments parseArguments(const QList<QByteArray> &argv)
{
    std::vector<std::string> words; // CLI11 takes them from the end
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
        if (app.get_subcommands().empty() && dynamic_cast<const CLI::RequiredError *>(&error))
            return raw.printCompletion ? completion(app) : usageError(noCommandText(app));
        return usageError(terminal::escaped(QString::fromUtf8(error.what())));
    }
    parsed.run = true;
    parsed.arguments = toArguments(app, raw);
    return parsed;
}

} // namespace trelanctl
