#include "arguments.h"

#include "terminaltext.h"

#include <appversionmanager.h>

#include <QtCore/QTextCodec>

#include <CLI/CLI.hpp>

#include <unistd.h>

namespace trelanctl
{

namespace
{

const char *const FOOTER =
    "\nThe options above may also follow the command. A name or value that begins with a dash "
    "follows \"--\".\n"
    "Exit codes: 0 done, 1 refused by the bus or no match, 2 usage, 3 no bus.\n";

/// What the parser fills in; it knows std::string only.
struct Raw
{
    std::string host = "127.0.0.1";
    quint16 queryPort = bus::TrelanQueryHandler::DEFAULT_PORT;
    quint16 messagePort = 0;
    std::string clientName = "trelanctl-" + std::to_string(::getpid());
    std::string name;
    std::string wildCard = "*";
    std::vector<std::string> names;
    std::vector<std::string> content;
    bool permanent = false;
    bool notStored = false;
    bool logged = false;
    bool json = false;
    bool verbose = false;
};

std::string versionText()
{
    const QString library =
        morvik::AppVersionManager::version(QStringLiteral("trelanclient")).version();
    return "trelanctl " TRELANCTL_VERSION " (trelanclient " + library.toStdString() + ")";
}

void addGlobalOptions(CLI::App &app, Raw &raw)
{
    const CLI::Range port(1, 65535);
    app.add_option("--host", raw.host, "IPv4 address or host name of the bus")
        ->capture_default_str();
    app.add_option("--query-port", raw.queryPort, "its query port")
        ->check(port)
        ->capture_default_str();
    app.add_option("--msg-port", raw.messagePort,
                   "its message port; accepted, but no command uses the message channel yet")
        ->check(port);
    app.add_option("--name", raw.clientName, "client name to use")
        ->default_str("trelanctl-<process id>");
    app.add_flag("--json", raw.json, "compact JSON, one object a line, instead of tables");
    app.add_flag("--verbose", raw.verbose, "also show the log lines of the client library");
    app.set_version_flag("--version", versionText(), "print the version");
}

void addPublish(CLI::App &app, Raw &raw)
{
    CLI::App *pub = app.add_subcommand("pub", "publish an object");
    pub->add_option("NAME", raw.name, "name of the object, such as room.kitchen")->required();
    pub->add_option("CONTENT", raw.content,
                    "a JSON object, or - to read it from standard input, or key=value pairs; a "
                    "value is JSON if it parses as such, else a string")
        ->required();
    CLI::Option *permanent =
        pub->add_flag("--permanent", raw.permanent, "keep it over a restart of the bus");
    pub->add_flag("--not-stored", raw.notStored, "pass it on to subscribers only")
        ->excludes(permanent);
    pub->add_flag("--logged", raw.logged, "leave a line in the log of the bus");
}

void addCommands(CLI::App &app, Raw &raw)
{
    addPublish(app, raw);
    app.add_subcommand("get", "show one object")
        ->add_option("NAME", raw.name, "its name")
        ->required();
    app.add_subcommand("ls", "show all objects whose names match")
        ->add_option("WILDCARD", raw.wildCard, "names to show, such as room.*")
        ->capture_default_str();
    app.add_subcommand("rm", "remove objects; names the bus does not know are no error")
        ->add_option("NAME", raw.names, "their names")
        ->required();
    CLI::App *match =
        app.add_subcommand("match", "say whether a wildcard takes in a name; asks no bus");
    match->add_option("NAME", raw.name)->required();
    match->add_option("WILDCARD", raw.wildCard)->required();
    app.add_subcommand("frame", "decode the frames on standard input; asks no bus");
}

Arguments::Command commandOf(const CLI::App &app)
{
    static const std::map<std::string, Arguments::Command> COMMANDS = {
        {"pub", Arguments::Publish}, {"get", Arguments::Get},     {"ls", Arguments::List},
        {"rm", Arguments::Remove},   {"match", Arguments::Match}, {"frame", Arguments::Frame}};
    return COMMANDS.at(app.get_subcommands().front()->get_name());
}

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

Arguments toArguments(const CLI::App &app, const Raw &raw)
{
    Arguments arguments;
    arguments.command = commandOf(app);
    arguments.name = unmarked(raw.name);
    arguments.wildCard = unmarked(raw.wildCard);
    arguments.names = toList(raw.names);
    arguments.content = toList(raw.content);
    arguments.permanent = raw.permanent;
    arguments.notStored = raw.notStored;
    arguments.logged = raw.logged;
    arguments.host = unmarked(raw.host);
    arguments.queryPort = raw.queryPort;
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

/// \a words: what was given where a command should be.
QString noCommandText(const std::vector<std::string> &words)
{
    const QString expected = QStringLiteral("pub, get, ls, rm, match or frame");
    if (words.empty())
        return QStringLiteral("a command is expected: ") + expected;
    return QStringLiteral("'%1' is no command; expected %2")
        .arg(terminal::escaped(unmarked(words.front())), expected);
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

    Raw raw;
    CLI::App app("Publishes, shows and removes the objects of a Trelan bus.", "trelanctl");
    app.footer(FOOTER);
    app.require_subcommand(1); // at most one, or the word "ls" could not be a name
    app.fallthrough();         // inherited by the commands
    addGlobalOptions(app, raw);
    addCommands(app, raw);

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
            return usageError(noCommandText(app.remaining()));
        return usageError(terminal::escaped(QString::fromUtf8(error.what())));
    }
    parsed.run = true;
    parsed.arguments = toArguments(app, raw);
    return parsed;
}

} // namespace trelanctl
