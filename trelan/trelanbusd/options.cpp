#include "options.h"

namespace trelanbusd
{

namespace
{

// A frame is one block in memory, and no block is larger than 2 GiB.
constexpr qint64 MAX_FRAME = 1LL << 30;
constexpr qint64 MAX_BYTES = 1LL << 40;
constexpr int MAX_COUNT = 100 * 1000 * 1000;
constexpr int MS_OF_SECOND = 1000;
constexpr int MAX_SECONDS = 2 * 1000 * 1000; // as milliseconds they are an int

/// Adds options that are numbers in a range, all of one group of the help.
class Limits
{
public:
    explicit Limits(CLI::App &app)
        : _app(app)
    {}

    void addCount(const char *name, int &value, const char *text)
    {
        add(name, value, text)->check(CLI::Range(1, MAX_COUNT));
    }
    void addSeconds(const char *name, int &value, const char *text)
    {
        add(name, value, text)->check(CLI::Range(1, MAX_SECONDS));
    }
    void addBytes(const char *name, qint64 &value, const char *text)
    {
        addSize(name, value, text)->check(CLI::Range(qint64(1), MAX_BYTES, "1 to 1 TiB"));
    }
    void addFrame(const char *name, qint64 &value, const char *text)
    {
        addSize(name, value, text)->check(CLI::Range(qint64(1), MAX_FRAME, "1 to 1 GiB"));
    }

private:
    template <typename Value>
    CLI::Option *add(const char *name, Value &value, const char *text)
    {
        return _app.add_option(name, value, text)->capture_default_str()->group("Limits");
    }
    CLI::Option *addSize(const char *name, qint64 &value, const char *text)
    {
        return add(name, value, text)->transform(CLI::AsSizeValue(false));
    }

    CLI::App &_app;
};

void addLimits(CLI::App &app, Options &options)
{
    bus::TrelanBusSettings &settings = options.settings;
    Limits limits(app);
    limits.addFrame("--max-frame", settings.maxFrameSize, "Largest payload of a frame");
    limits.addFrame("--max-inflated", settings.maxInflatedSize, "Largest inflated request");
    limits.addCount("--max-connections", settings.maxConnections, "Connections at a time");
    limits.addCount("--max-objects", settings.maxObjects, "Stored objects");
    limits.addBytes("--max-bytes", settings.maxObjectBytes, "Stored objects together, in bytes");
    limits.addCount("--max-subscriptions", settings.maxSubscriptions, "Wildcards of one client");
    limits.addCount("--max-client-messages", settings.maxClientMessages,
                    "What waits for one client");
    limits.addBytes("--max-client-bytes", settings.maxClientBytes,
                    "What waits for one client, in bytes");
    limits.addCount("--max-client-names", settings.maxClientNames,
                    "Objects whose newest value waits for one client");
    limits.addCount("--conflate-above", settings.conflateAbove,
                    "What waits for one client before only the newest value of an object does");
    limits.addSeconds("--message-lifetime", options.messageLifetime,
                      "Seconds for which a message waits for its receiver");
    limits.addCount("--max-queues", settings.maxQueues, "Absent clients that something waits for");
    limits.addBytes("--max-queued-bytes", settings.maxQueuedBytes,
                    "What waits for all clients together, in bytes");
}

} // namespace

void addOptions(CLI::App &app, Options &options)
{
    app.set_version_flag("--version", "trelanbusd " TRELAN_VERSION);
    app.add_option("--host", options.host, "IPv4 address to listen on")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--query-port", options.settings.queryPort,
                   "Port of the query channel; 0 takes any free one")
        ->capture_default_str();
    app.add_option("--msg-port", options.settings.msgPort,
                   "Port of the message channel; 0 takes any free one")
        ->capture_default_str();
    app.add_option("--port-file", options.portFile,
                   "File that gets the lines query=PORT and msg=PORT once the bus listens");
    app.add_option("--data", options.dataFolder,
                   "Folder of the permanent objects; without it they end with the process")
        // A variable that a script forgot to set must not cost the objects.
        ->check([](const std::string &folder) {
            return folder.empty() ? std::string("the folder has no name") : std::string();
        });
    app.add_option("--log-level", options.logLevel, "Least severe line to log")
        ->check(CLI::IsMember({"debug", "info", "warning", "critical"}))
        ->capture_default_str();
    addLimits(app, options);
}

void finish(Options &options)
{
    options.settings.host = QHostAddress(QString::fromStdString(options.host));
    options.settings.dataFolder = QString::fromStdString(options.dataFolder);
    options.settings.requireStorage = true;
    options.settings.messageLifetime = options.messageLifetime * MS_OF_SECOND;
}

} // namespace trelanbusd
