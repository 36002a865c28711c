#include "commandline.h"

#include <appversionmanager.h>
#include <helptext.h>

#include <map>

namespace trelanctl
{

namespace
{

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

std::string notEmpty(const std::string &text)
{
    return text.empty() ? "must not be empty" : "";
}

std::string inSecondsRange(const std::string &text)
{
    double seconds = 0;
    const bool fits = CLI::detail::lexical_cast(text, seconds) && seconds >= MIN_SECONDS &&
                      seconds <= MAX_SECONDS;
    return fits ? "" : "'" + text + "' is no number of seconds from 0.001 to 86400";
}

std::string inPortRange(const std::string &text)
{
    int port = 0;
    const bool fits = CLI::detail::lexical_cast(text, port) && port > 0 && port <= 65535;
    return fits ? "" : "'" + text + "' is no port from 1 to 65535";
}

void addPort(CLI::App &app, const char *name, quint16 &port, const char *text)
{
    app.add_option(name, port, text)
        ->type_name("PORT")
        ->check(CLI::Validator(inPortRange, ""))
        ->capture_default_str();
}

/// A name or wildcard, which is never empty.
template <typename Value>
CLI::Option *addName(CLI::App &command, const char *name, Value &value, const char *text)
{
    return command.add_option(name, value, text)->check(CLI::Validator(notEmpty, ""));
}

void addSeconds(CLI::App &command, const char *name, double &seconds, const char *text)
{
    command.add_option(name, seconds, text)
        ->type_name("SECONDS")
        ->default_str(CLI::detail::to_string(seconds))
        ->check(CLI::Validator(inSecondsRange, ""));
}

void addExamples(CLI::App &command, const std::vector<programs::HelpEntry> &examples)
{
    command.footer(programs::helpSection("Examples", examples));
}

void addGlobalOptions(CLI::App &app, RawArguments &raw)
{
    addName(app, "--host", raw.host, "IPv4 address or host name of the bus")
        ->type_name("HOST")
        ->capture_default_str();
    addPort(app, "--query-port", raw.queryPort, "port of its query channel");
    addPort(app, "--msg-port", raw.messagePort,
            "port of its message channel, for the commands to which the bus delivers: watch, wait, "
            "call, serve, logs and bench");
    addName(app, "--name", raw.clientName,
            "client name to use, which no other client may have at the time; logs is always "
            "\"logger\"")
        ->type_name("NAME")
        ->default_str("trelanctl-<process id>");
    app.add_flag("--json", raw.json, "compact JSON, one object a line, instead of tables");
    app.add_flag("--verbose", raw.verbose, "also show the log lines of the client library");
    app.set_version_flag("--version", versionText(), "print the version");
    app.add_flag("--print-completion", raw.printCompletion)->group(""); // for the build
}

void addPublish(CLI::App &app, RawArguments &raw)
{
    CLI::App *pub = app.add_subcommand("pub", "publish an object");
    addName(*pub, "NAME", raw.name, "name of the object, such as room.kitchen")->required();
    pub->add_option("CONTENT", raw.content, CONTENT)->required();
    CLI::Option *permanent =
        pub->add_flag("--permanent", raw.permanent, "keep it over a restart of the bus");
    pub->add_flag("--not-stored", raw.notStored,
                  "pass it on to subscribers only; not with --permanent")
        ->excludes(permanent);
    pub->add_flag("--logged", raw.logged, "leave a line in the log of the bus");
    addExamples(
        *pub,
        {{"trelanctl pub room.kitchen celsius=21.5 window=open", "publishes a number and a string"},
         {"trelanctl pub room.kitchen '{\"celsius\": 21.5}' --permanent",
          "publishes a JSON object that survives the bus"},
         {"sensors -j | trelanctl pub host.sensors -", "publishes what another program says"}});
}

void addObjectCommands(CLI::App &app, RawArguments &raw)
{
    addPublish(app, raw);
    CLI::App *get = app.add_subcommand("get", "show one object");
    addName(*get, "NAME", raw.name, "name of the object")->required();
    addExamples(*get, {{"trelanctl get room.kitchen --json", "prints it for a script"}});
    CLI::App *list = app.add_subcommand("ls", "show all stored objects whose names match");
    addName(*list, "WILDCARD", raw.wildCard, "names to show, such as room.*; see trelanctl --help")
        ->capture_default_str();
    addExamples(*list, {{"trelanctl ls", "shows all that is stored"},
                        {"trelanctl ls 'room.*'", "shows what is stored of all rooms"}});
    CLI::App *remove =
        app.add_subcommand("rm", "remove objects; names that the bus does not know are no error");
    addName(*remove, "NAME", raw.names, "names of the objects, no wildcards")->required();
    addExamples(*remove, {{"trelanctl rm room.kitchen room.hall", "forgets two objects"}});
}

void addWatching(CLI::App &app, RawArguments &raw)
{
    const char *names = "names to show, such as room.*; see trelanctl --help";
    CLI::App *watch = app.add_subcommand(
        "watch", "show what is stored now, then every change and removal, until interrupted");
    addName(*watch, "WILDCARD", raw.names, names)->required();
    addExamples(*watch, {{"trelanctl watch 'room.*' 'host.+'", "shows rooms and hosts"},
                         {"trelanctl watch '*' --json | jq .content", "hands changes on"}});
    CLI::App *wait = app.add_subcommand("wait", "wait for the first object that is there or comes");
    addName(*wait, "WILDCARD", raw.wildCard, names)->required();
    addSeconds(*wait, "--timeout", raw.timeout, "end with exit code 1 after this time");
    addExamples(*wait, {{"trelanctl wait door.front --timeout 60 && echo seen",
                         "goes on once the object is there"}});
}

void addSending(CLI::App &app, RawArguments &raw)
{
    const char *client = "name of the client";
    CLI::App *send = app.add_subcommand("send", "send a text to a client");
    addName(*send, "CLIENT", raw.client, client)->required();
    send->add_option("TEXT", raw.text, "what to send")->required();
    send->add_flag("--stored", raw.stored, "let it wait for a client that is not there");
    addExamples(*send, {{"trelanctl send display 'back in 5 minutes' --stored",
                         "waits up to an hour for the client display"}});

    CLI::App *call = app.add_subcommand("call", "send a command to a client and show its answer");
    addName(*call, "CLIENT", raw.client, client)->required();
    addName(*call, "COMMAND", raw.name, "name of the command")->required();
    call->add_option("PARAMETERS", raw.content, CONTENT);
    addSeconds(*call, "--timeout", raw.timeout,
               "end with exit code 1 if there is no answer in this time");
    addExamples(*call, {{"trelanctl call files count 'list=[1, 2, 3]'",
                         "prints the parameters of the answer; one that holds \"error\" ends it "
                         "with exit code 1"}});
}

void addServing(CLI::App &app, RawArguments &raw)
{
    CLI::App *serve = app.add_subcommand(
        "serve", "answer a command with what a program makes of it, until interrupted");
    addName(*serve, "COMMAND", raw.name, "name of the command")->required();
    serve->add_option("ARGUMENTS", raw.programArguments,
                      "arguments of the program, after \"--\" if they begin with a dash");
    addName(*serve, "--exec", raw.program,
            "program to run for each command, without a shell: it gets the parameters as JSON on "
            "standard input, and writes those of the answer as a JSON object to standard output")
        ->type_name("PROGRAM")
        ->required();
    addSeconds(*serve, "--timeout", raw.programTimeout,
               "kill a program after this time, with all that it has started");
    serve->footer(
        programs::helpSection(
            "Limits", {{"4", "programs run at a time"},
                       {"64", "commands wait for a program to end; more are refused"},
                       {"64", "answers wait for a bus that is away; the oldest are lost first"},
                       {"1 MiB", "is what a program may write"}}) +
        programs::helpSection(
            "Failures", {{"{\"error\": TEXT}",
                          "is the answer when a program cannot be started, fails, takes too long, "
                          "or writes something else than a JSON object; when a command is refused; "
                          "and when another command is called"}}) +
        programs::helpSection(
            "Examples", {{"trelanctl --name files serve count --exec jq -- '{n: (.list | length)}'",
                          "answers the command count at the client files"},
                         {"trelanctl --name clock serve now --exec /bin/sh -- -c 'echo "
                          "{\\\"s\\\":$(date +%s)}'",
                          "runs a shell where one is wanted"}}));
}

void addOtherCommands(CLI::App &app, RawArguments &raw)
{
    CLI::App *logs =
        app.add_subcommand("logs", "show the log lines that applications send, until interrupted");
    addExamples(*logs, {{"trelanctl logs | grep ERROR", "shows errors of all applications"}});
    CLI::App *clients = app.add_subcommand("clients", "show who is on the bus, or has something "
                                                      "waiting there");
    addExamples(*clients, {{"trelanctl clients --json | jq .queued", "shows what waits"}});
    CLI::App *whoAmI = app.add_subcommand(
        "whoami", "show what the bus knows of who runs this: user, groups, process");
    addExamples(*whoAmI, {{"trelanctl whoami --json | jq -r .user",
                           "shows the user that the bus takes this for"}});
    CLI::App *bench =
        app.add_subcommand("bench", "measure this bus at its sockets, without the pacing of the "
                                    "client library; nothing is stored");
    addSeconds(*bench, "--seconds", raw.seconds, "how long all of it may take");
    addExamples(*bench, {{"trelanctl bench --seconds 30", "measures for half a minute"}});
    CLI::App *match =
        app.add_subcommand("match", "say whether a wildcard takes in a name; asks no bus");
    match->add_option("NAME", raw.name, "name of an object")->required();
    match->add_option("WILDCARD", raw.wildCard, "wildcard to try")->required();
    addExamples(*match, {{"trelanctl match room.kitchen 'room.+'", "says match"}});
    CLI::App *frame =
        app.add_subcommand("frame", "decode the frames on standard input; asks no bus");
    addExamples(*frame, {{"trelanctl frame <captured", "shows what a connection carried"}});
}

std::string mainFooter()
{
    return "\nThe options may also follow the command. A name or value that begins with a dash\n"
           "follows \"--\". trelanctl COMMAND --help tells more of a command.\n" +
           programs::helpSection(
               "Wildcards",
               {{"*", "all names"},
                {"room.*", "names of two segments or more of which the first is room"},
                {"room.+", "names of two segments of which the first is room"},
                {"*.temp.*", "names in which the segment temp occurs, in three segments or more"},
                {"room.temp", "that name only"},
                {"rules", "A '+' is one segment, a '*' any number of them. A '*' counts only at "
                          "the end, or at both ends; *.temp takes in nothing. Segments on both "
                          "sides of a '+' have to stand side by side in the name: room.+.temp does "
                          "not take in room.kitchen.temp. trelanctl match tries a wildcard."}}) +
           programs::helpSection(
               "Exit codes",
               {{"0", "done; also when watch, serve or logs were interrupted"},
                {"1", "refused by the bus, no match, nothing in time, or an answer that holds an "
                      "error"},
                {"2", "wrong usage"},
                {"3", "no bus"}}) +
           programs::helpSection(
               "Examples",
               {{"trelanctl watch 'room.*' &", "shows what is stored of the rooms, and changes"},
                {"trelanctl pub room.kitchen celsius=21.5", "publishes an object"},
                {"trelanctl call files count 'list=[1, 2]'", "asks the client files"}});
}

} // namespace

void addCommandLine(CLI::App &app, RawArguments &raw)
{
    app.formatter(std::make_shared<programs::HelpFormatter>()); // the commands inherit this
    app.set_help_flag("-h,--help", "print this help");          // and this
    app.fallthrough();                                          // and this
    app.require_subcommand(1); // exactly one: a second "ls" is a name
    addGlobalOptions(app, raw);
    addObjectCommands(app, raw);
    addWatching(app, raw);
    addSending(app, raw);
    addServing(app, raw);
    addOtherCommands(app, raw);
    for (CLI::App *command : app.get_subcommands({}))
        command->group("Commands");
    app.footer(mainFooter());
}

Arguments::Command commandOf(const CLI::App &app)
{
    static const std::map<std::string, Arguments::Command> COMMANDS = {
        {"pub", Arguments::Publish}, {"get", Arguments::Get},         {"ls", Arguments::List},
        {"rm", Arguments::Remove},   {"match", Arguments::Match},     {"frame", Arguments::Frame},
        {"watch", Arguments::Watch}, {"wait", Arguments::Wait},       {"send", Arguments::Send},
        {"call", Arguments::Call},   {"serve", Arguments::Serve},     {"logs", Arguments::Logs},
        {"bench", Arguments::Bench}, {"clients", Arguments::Clients}, {"whoami", Arguments::WhoAmI},
    };
    return COMMANDS.at(app.get_subcommands().front()->get_name());
}

std::vector<std::string> commandNames(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands({}))
        names.push_back(command->get_name());
    return names;
}

} // namespace trelanctl
