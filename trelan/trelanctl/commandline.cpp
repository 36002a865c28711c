#include "commandline.h"

#include <appversionmanager.h>

#include <map>

namespace trelanctl
{

namespace
{

const char *const FOOTER =
    "\nThe options above may also follow the command. A name or value that begins with a dash "
    "follows \"--\".\n"
    "Exit codes: 0 done, 1 refused by the bus, no match or no answer, 2 usage, 3 no bus.\n";
const char *const CONTENT =
    "a JSON object, or - to read it from standard input, or key=value pairs; a value is JSON if it "
    "parses as such, else a string";

const double MIN_SECONDS = 0.001;
const double MAX_SECONDS = 24 * 60 * 60; // a timer of Qt counts milliseconds in 31 bits

std::string versionText()
{
    const QString library =
        morvik::AppVersionManager::version(QStringLiteral("trelanclient")).version();
    return "trelanctl " TRELANCTL_VERSION " (trelanclient " + library.toStdString() + ")";
}

void addGlobalOptions(CLI::App &app, RawArguments &raw)
{
    const CLI::Range port(1, 65535);
    app.add_option("--host", raw.host, "IPv4 address or host name of the bus")
        ->capture_default_str();
    app.add_option("--query-port", raw.queryPort, "its query port")
        ->check(port)
        ->capture_default_str();
    app.add_option("--msg-port", raw.messagePort,
                   "its message port, for the commands to which the bus delivers: watch, wait, "
                   "call, serve, logs and bench")
        ->check(port)
        ->capture_default_str();
    app.add_option("--name", raw.clientName, "client name to use; logs is always \"logger\"")
        ->default_str("trelanctl-<process id>");
    app.add_flag("--json", raw.json, "compact JSON, one object a line, instead of tables");
    app.add_flag("--verbose", raw.verbose, "also show the log lines of the client library");
    app.set_version_flag("--version", versionText(), "print the version");
    app.add_flag("--print-completion", raw.printCompletion)->group(""); // for the build
}

void addPublish(CLI::App &app, RawArguments &raw)
{
    CLI::App *pub = app.add_subcommand("pub", "publish an object");
    pub->add_option("NAME", raw.name, "name of the object, such as room.kitchen")->required();
    pub->add_option("CONTENT", raw.content, CONTENT)->required();
    CLI::Option *permanent =
        pub->add_flag("--permanent", raw.permanent, "keep it over a restart of the bus");
    pub->add_flag("--not-stored", raw.notStored, "pass it on to subscribers only")
        ->excludes(permanent);
    pub->add_flag("--logged", raw.logged, "leave a line in the log of the bus");
}

void addObjectCommands(CLI::App &app, RawArguments &raw)
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
}

void addTimeout(CLI::App &command, double &seconds, const char *text)
{
    command.add_option("--timeout", seconds, text)
        ->option_text("SECONDS [" + CLI::detail::to_string(seconds) + "]")
        ->check(CLI::Range(MIN_SECONDS, MAX_SECONDS));
}

void addWatching(CLI::App &app, RawArguments &raw)
{
    const char *names = "names to show, such as room.*";
    app.add_subcommand("watch", "show what is stored now, then every change, until interrupted")
        ->add_option("WILDCARD", raw.names, names)
        ->required();
    CLI::App *wait = app.add_subcommand("wait", "wait for the first object that is there or comes");
    wait->add_option("WILDCARD", raw.names, names)->required()->expected(1);
    addTimeout(*wait, raw.timeout, "end with exit code 1 after this time");
}

void addTalking(CLI::App &app, RawArguments &raw)
{
    const char *client = "name of the client";
    CLI::App *send = app.add_subcommand("send", "send a text to a client");
    send->add_option("CLIENT", raw.client, client)->required();
    send->add_option("TEXT", raw.text, "what to send")->required();
    send->add_flag("--stored", raw.stored, "let it wait for a client that is not there");

    CLI::App *call = app.add_subcommand("call", "send a command to a client and show its answer");
    call->add_option("CLIENT", raw.client, client)->required();
    call->add_option("COMMAND", raw.name, "name of the command")->required();
    call->add_option("PARAMETERS", raw.content, CONTENT);
    addTimeout(*call, raw.timeout, "end with exit code 1 if there is no answer in this time");

    CLI::App *serve = app.add_subcommand(
        "serve", "answer a command with what a program makes of it, until interrupted");
    serve->add_option("COMMAND", raw.name, "name of the command")->required();
    serve->add_option("ARGUMENTS", raw.programArguments,
                      "arguments of the program, after \"--\" if they begin with a dash");
    serve
        ->add_option("--exec", raw.program,
                     "program to run, without a shell: it gets the parameters as JSON on standard "
                     "input, and writes those of the answer as JSON to standard output; at most 4 "
                     "run at once")
        ->option_text("PROGRAM REQUIRED")
        ->required();
    addTimeout(*serve, raw.programTimeout, "kill a program after this time");
}

void addOtherCommands(CLI::App &app, RawArguments &raw)
{
    app.add_subcommand("logs", "show the log lines that applications send, until interrupted");
    app.add_subcommand("clients", "show the clients of the bus");
    app.add_subcommand("bench", "measure this bus at its sockets, without the pacing of the client "
                                "library; nothing is stored")
        ->add_option("--seconds", raw.seconds, "how long all of it may take")
        ->option_text("SECONDS [10]")
        ->check(CLI::Range(MIN_SECONDS, MAX_SECONDS));
    CLI::App *match =
        app.add_subcommand("match", "say whether a wildcard takes in a name; asks no bus");
    match->add_option("NAME", raw.name)->required();
    match->add_option("WILDCARD", raw.wildCard)->required();
    app.add_subcommand("frame", "decode the frames on standard input; asks no bus");
}

} // namespace

void addCommandLine(CLI::App &app, RawArguments &raw)
{
    app.footer(FOOTER);
    app.require_subcommand(1); // at most one, or the word "ls" could not be a name
    app.fallthrough();         // inherited by the commands
    addGlobalOptions(app, raw);
    addObjectCommands(app, raw);
    addWatching(app, raw);
    addTalking(app, raw);
    addOtherCommands(app, raw);
}

Arguments::Command commandOf(const CLI::App &app)
{
    static const std::map<std::string, Arguments::Command> COMMANDS = {
        {"pub", Arguments::Publish}, {"get", Arguments::Get},         {"ls", Arguments::List},
        {"rm", Arguments::Remove},   {"match", Arguments::Match},     {"frame", Arguments::Frame},
        {"watch", Arguments::Watch}, {"wait", Arguments::Wait},       {"send", Arguments::Send},
        {"call", Arguments::Call},   {"serve", Arguments::Serve},     {"logs", Arguments::Logs},
        {"bench", Arguments::Bench}, {"clients", Arguments::Clients},
    };
    return COMMANDS.at(app.get_subcommands().front()->get_name());
}

QString commandNames(const CLI::App &app)
{
    QStringList names;
    for (const CLI::App *command : app.get_subcommands({}))
        names.append(QString::fromStdString(command->get_name()));
    const QString last = names.takeLast();
    return QStringLiteral("%1 or %2").arg(names.join(QStringLiteral(", ")), last);
}

} // namespace trelanctl
