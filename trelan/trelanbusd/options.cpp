#include "options.h"

#include <helptext.h>

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

/// "16 MiB", or the number of bytes if it is no whole number of those.
std::string sizeText(qint64 bytes)
{
    constexpr qint64 MIB = 1024 * 1024;
    return bytes % MIB == 0 ? std::to_string(bytes / MIB) + " MiB" : std::to_string(bytes);
}

/// Adds options that are numbers in a range, all in one group of the help.
class Limits
{
public:
    explicit Limits(CLI::App &app)
        : _app(app)
    {}

    void addCount(const char *name, int &value, const char *text)
    {
        add(name, value, text, "COUNT")->check(CLI::Range(1, MAX_COUNT))->capture_default_str();
    }
    void addSeconds(const char *name, int &value, const char *text)
    {
        add(name, value, text, "SECONDS")->check(CLI::Range(1, MAX_SECONDS))->capture_default_str();
    }
    void addBytes(const char *name, qint64 &value, const char *text)
    {
        addSize(name, value, text)->check(CLI::Range(qint64(1), MAX_BYTES));
    }
    void addFrame(const char *name, qint64 &value, const char *text)
    {
        addSize(name, value, text)->check(CLI::Range(qint64(1), MAX_FRAME));
    }

private:
    template <typename Value>
    CLI::Option *add(const char *name, Value &value, const char *text, const char *type)
    {
        return _app.add_option(name, value, text)->type_name(type)->group("Limits");
    }
    CLI::Option *addSize(const char *name, qint64 &value, const char *text)
    {
        return add(name, value, text, "SIZE")
            ->transform(CLI::AsSizeValue(false))
            ->default_str(sizeText(value));
    }

    CLI::App &_app;
};

void addLimits(CLI::App &app, Options &options)
{
    bus::TrelanBusSettings &settings = options.settings;
    Limits limits(app);
    limits.addFrame("--max-frame", settings.maxFrameSize,
                    "Largest payload of a frame, up to 1 GiB; sizes are bytes, or have a unit such "
                    "as 64MiB");
    limits.addFrame("--max-inflated", settings.maxInflatedSize,
                    "Largest inflated request, up to 1 GiB");
    limits.addCount("--max-connections", settings.maxConnections, "Connections at a time");
    limits.addCount("--max-objects", settings.maxObjects, "Stored objects");
    limits.addBytes("--max-bytes", settings.maxObjectBytes, "Size of all stored objects together");
    limits.addCount("--max-subscriptions", settings.maxSubscriptions, "Wildcards of one client");
    limits.addCount("--max-client-messages", settings.maxClientMessages,
                    "Messages that wait for one client");
    limits.addBytes("--max-client-bytes", settings.maxClientBytes,
                    "Size of the messages that wait for one client");
    limits.addCount("--max-client-names", settings.maxClientNames,
                    "Objects whose newest value waits for one client");
    limits.addCount("--conflate-above", settings.conflateAbove,
                    "Messages that wait for one client before only the newest value of an object "
                    "waits");
    limits.addSeconds("--message-lifetime", options.messageLifetime,
                      "How long a message waits for its receiver");
    limits.addCount("--max-queues", settings.maxQueues, "Absent clients that something waits for");
    limits.addBytes("--max-queued-bytes", settings.maxQueuedBytes,
                    "Size of the messages that wait for all clients together");
}

void addPort(CLI::App &app, const char *name, quint16 &port, const char *text)
{
    app.add_option(name, port, text)
        ->type_name("PORT")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
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
                {"trelanbusd.service", "The systemd unit"},
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

} // namespace

void addOptions(CLI::App &app, Options &options)
{
    app.formatter(std::make_shared<programs::HelpFormatter>());
    app.set_help_flag("-h,--help", "Print this help");
    app.set_version_flag("--version", "trelanbusd " TRELAN_VERSION, "Print the version");
    app.add_option("--host", options.host, "IPv4 address to listen on")
        ->type_name("ADDRESS")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    addPort(app, "--query-port", options.settings.queryPort,
            "Port of the query channel; 0 takes any free one");
    addPort(app, "--msg-port", options.settings.msgPort,
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

void finish(Options &options)
{
    options.settings.host = QHostAddress(QString::fromStdString(options.host));
    options.settings.dataFolder = QString::fromStdString(options.dataFolder);
    options.settings.requireStorage = true;
    options.settings.messageLifetime = options.messageLifetime * MS_OF_SECOND;
}

} // namespace trelanbusd
