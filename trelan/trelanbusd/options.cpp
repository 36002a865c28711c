#include "options.h"

#include <commandlinefault.h>
#include <helptext.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace trelanbusd
{

namespace
{

// A frame is one block in memory, and Qt makes no block larger than 2 GiB.
constexpr qint64 MAX_FRAME = 1LL << 30;
constexpr qint64 MAX_BYTES = 1LL << 40;
constexpr int MAX_COUNT = 100 * 1000 * 1000;
constexpr int MS_OF_SECOND = 1000;
constexpr int MAX_SECONDS = 2 * 1000 * 1000; // as milliseconds they are an int
constexpr char LIMITS[] = "Limits";

using bus::TrelanBusSettings;

/// "16 MiB", or the number of bytes if it is no whole number of those.
std::string sizeText(qint64 bytes)
{
    constexpr qint64 MIB = 1024 * 1024;
    return bytes % MIB == 0 ? std::to_string(bytes / MIB) + " MiB" : std::to_string(bytes);
}

/// Adds options that set a number, within its range, and show its default.
class Numbers
{
public:
    Numbers(CLI::App &app, TrelanBusSettings &settings)
        : _app(app)
        , _settings(settings)
    {}

    void addPort(const char *name, quint16 (TrelanBusSettings::*get)() const,
                 void (TrelanBusSettings::*set)(quint16), const char *text)
    {
        add(name, get, set, text, "PORT")->check(CLI::Range(0, 65535));
    }
    void addCount(const char *name, int (TrelanBusSettings::*get)() const,
                  void (TrelanBusSettings::*set)(int), const char *text)
    {
        add(name, get, set, text, "COUNT")->check(CLI::Range(1, MAX_COUNT))->group(LIMITS);
    }
    void addBytes(const char *name, qint64 (TrelanBusSettings::*get)() const,
                  void (TrelanBusSettings::*set)(qint64), const char *text)
    {
        addSize(name, get, set, text)->check(CLI::Range(qint64(1), MAX_BYTES));
    }
    void addFrame(const char *name, qint64 (TrelanBusSettings::*get)() const,
                  void (TrelanBusSettings::*set)(qint64), const char *text)
    {
        addSize(name, get, set, text)->check(CLI::Range(qint64(1), MAX_FRAME));
    }

private:
    template <typename Number>
    CLI::Option *add(const char *name, Number (TrelanBusSettings::*get)() const,
                     void (TrelanBusSettings::*set)(Number), const char *text, const char *type)
    {
        const auto take = [&settings = _settings, set](const Number &value) {
            (settings.*set)(value);
        };
        return _app.add_option_function<Number>(name, take, text)
            ->type_name(type)
            ->default_str(std::to_string((_settings.*get)()));
    }
    CLI::Option *addSize(const char *name, qint64 (TrelanBusSettings::*get)() const,
                         void (TrelanBusSettings::*set)(qint64), const char *text)
    {
        return add(name, get, set, text, "SIZE")
            ->transform(CLI::AsSizeValue(false))
            ->default_str(sizeText((_settings.*get)()))
            ->group(LIMITS);
    }

    CLI::App &_app;
    TrelanBusSettings &_settings;
};

void addLimits(CLI::App &app, Options &options)
{
    using Settings = TrelanBusSettings;
    Numbers numbers(app, options.settings);
    numbers.addFrame(
        "--max-frame", &Settings::maxFrameSize, &Settings::setMaxFrameSize,
        "Largest payload of a frame, up to 1 GiB; sizes are bytes, or have a unit such "
        "as 64MiB");
    numbers.addFrame("--max-inflated", &Settings::maxInflatedSize, &Settings::setMaxInflatedSize,
                     "Largest inflated request, up to 1 GiB");
    numbers.addCount("--max-connections", &Settings::maxConnections, &Settings::setMaxConnections,
                     "Connections at a time");
    numbers.addCount("--max-objects", &Settings::maxObjects, &Settings::setMaxObjects,
                     "Stored objects");
    numbers.addBytes("--max-bytes", &Settings::maxObjectBytes, &Settings::setMaxObjectBytes,
                     "Size of all stored objects together");
    numbers.addCount("--max-subscriptions", &Settings::maxSubscriptions,
                     &Settings::setMaxSubscriptions, "Wildcards of one client");
    numbers.addCount("--max-client-messages", &Settings::maxClientMessages,
                     &Settings::setMaxClientMessages, "Messages that wait for one client");
    numbers.addBytes("--max-client-bytes", &Settings::maxClientBytes, &Settings::setMaxClientBytes,
                     "Size of the messages that wait for one client");
    numbers.addCount("--max-client-names", &Settings::maxClientNames, &Settings::setMaxClientNames,
                     "Objects whose newest value waits for one client");
    numbers.addCount("--conflate-above", &Settings::conflateAbove, &Settings::setConflateAbove,
                     "Messages that wait for one client before only the newest value of an object "
                     "waits");
    app.add_option("--message-lifetime", options.messageLifetime,
                   "How long a message waits for its receiver")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(1, MAX_SECONDS))
        ->group(LIMITS);
    numbers.addCount("--max-queues", &Settings::maxQueues, &Settings::setMaxQueues,
                     "Absent clients that something waits for");
    numbers.addBytes("--max-queued-bytes", &Settings::maxQueuedBytes, &Settings::setMaxQueuedBytes,
                     "Size of the messages that wait for all clients together");
}

std::string footer()
{
    using programs::helpSection;
    return helpSection(
               "Files",
               {{"DIR/trelan.db", "Permanent objects and stored messages, in the folder given with "
                                  "--data: an SQLite database, with trelan.db-wal and "
                                  "trelan.db-shm beside it while the bus runs. One bus at a time "
                                  "uses it. To start anew, move it away while no bus runs."},
                {"/var/lib/trelanbusd", "That folder when systemd runs the bus"},
                {"/etc/default/trelanbusd", "Options for the bus that systemd runs, on Debian"},
                {"trelanbusd.service", "The systemd unit, of the system and of a user"},
                {"trelanbusd.socket",
                 "The ports, which systemd opens for the bus: one socket named query and one named "
                 "messages, or two in this order"}}) +
           helpSection("Signals", {{"SIGTERM, SIGINT",
                                    "End the bus. Permanent objects and stored messages that it "
                                    "has acknowledged are on disk; everything else is lost."}}) +
           helpSection("Exit codes",
                       {{"0", "Ended by SIGTERM or SIGINT, or help or version printed"},
                        {"1", "Could not start; the line on standard error says why"},
                        {"2", "Wrong usage"}}) +
           helpSection("Examples", {{"trelanbusd", "Runs a bus that keeps everything in memory"},
                                    {"trelanbusd --data /srv/bus",
                                     "Keeps permanent objects and stored messages"},
                                    {"trelanbusd --query-port 0 --msg-port 0 --port-file ports",
                                     "Takes free ports, and says in the file which; for tests"},
                                    {"trelanctl ls", "Shows what is on the bus"}});
}

void addOptions(CLI::App &app, Options &options)
{
    app.formatter(std::make_shared<programs::HelpFormatter>());
    app.set_help_flag("-h,--help", "Print this help");
    app.set_version_flag("--version", "trelanbusd " TRELAN_VERSION, "Print the version");
    app.add_option("--host", options.host, "IPv4 address to listen on")
        ->type_name("ADDRESS")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--for", options.audience,
                   "Who may connect: me, which is the user of the daemon and root, or users, which "
                   "is every user")
        ->type_name("WHOM")
        ->check(CLI::IsMember({"me", "users"}))
        ->capture_default_str();
    Numbers ports(app, options.settings);
    ports.addPort("--query-port", &TrelanBusSettings::queryPort, &TrelanBusSettings::setQueryPort,
                  "Port of the query channel; 0 takes any free one");
    ports.addPort("--msg-port", &TrelanBusSettings::msgPort, &TrelanBusSettings::setMsgPort,
                  "Port of the message channel; 0 takes any free one");
    app.add_option("--port-file", options.portFile,
                   "File that gets the lines query=PORT and msg=PORT once the bus listens")
        ->type_name("FILE");
    app.add_option("--data", options.dataFolder,
                   "Folder of permanent objects and stored messages; without it they end with the "
                   "process")
        ->type_name("DIR")
        // A variable that a script forgot to set must not cost the objects.
        ->check([](const std::string &folder) {
            return folder.empty() ? std::string("the folder has no name") : std::string();
        });
    app.add_option("--log-level", options.logLevel,
                   "Least severe lines to log: debug, info, warning or critical")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"debug", "info", "warning", "critical"}))
        ->capture_default_str();
    addLimits(app, options);
    app.footer(footer());
}

/// Completes the settings with the options that they hold in another form.
void finish(Options &options)
{
    options.settings.setHost(QHostAddress(QString::fromStdString(options.host)));
    options.settings.setAdmission(options.audience == "me" ? TrelanBusSettings::Me
                                                           : TrelanBusSettings::Users);
    options.settings.setDataFolder(QString::fromStdString(options.dataFolder));
    options.settings.setRequireStorage(true);
    options.settings.setMessageLifetime(options.messageLifetime * MS_OF_SECOND);
}

} // namespace

std::optional<ExitCode> readOptions(int argc, char **argv, Options &options)
{
    CLI::App app("Trelan's bus server: keeps shared objects and answers the applications of this "
                 "machine.",
                 "trelanbusd");
    addOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &success) { // help or version
        return app.exit(success) == 0 ? EXIT_DONE : EXIT_FAILED;
    } catch (const CLI::ParseError &error) {
        std::fprintf(stderr, "trelanbusd: %s; see trelanbusd --help\n",
                     programs::commandLineFault(app, error).c_str());
        return EXIT_USAGE;
    }
    finish(options);
    return std::nullopt;
}

} // namespace trelanbusd
