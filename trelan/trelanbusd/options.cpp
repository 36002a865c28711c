#include "options.h"

namespace trelanbusd
{

namespace
{

// A frame is one block of memory, which is smaller than 2 GiB.
constexpr qint64 MAX_FRAME = 1LL << 30;
constexpr qint64 MAX_BYTES = 1LL << 40;
constexpr int MAX_COUNT = 100 * 1000 * 1000;
constexpr int MS_OF_SECOND = 1000;
constexpr int MAX_SECONDS = 2 * 1000 * 1000; // as milliseconds they are an int
constexpr char LIMITS[] = "Limits";

using bus::TrelanBusSettings;

/// Adds options that set a number, within its range, and show its default.
class Numbers
{
public:
    Numbers(CLI::App &app, TrelanBusSettings &settings)
        : _app(app)
        , _settings(settings)
    {}

    template <typename Number>
    CLI::Option *add(const char *name, Number (TrelanBusSettings::*get)() const,
                     void (TrelanBusSettings::*set)(Number), const char *text)
    {
        const auto take = [&settings = _settings, set](const Number &value) {
            (settings.*set)(value);
        };
        return _app.add_option_function<Number>(name, take, text)
            ->default_str(std::to_string((_settings.*get)()));
    }

    void addCount(const char *name, int (TrelanBusSettings::*get)() const,
                  void (TrelanBusSettings::*set)(int), const char *text)
    {
        add(name, get, set, text)->check(CLI::Range(1, MAX_COUNT))->group(LIMITS);
    }
    void addBytes(const char *name, qint64 (TrelanBusSettings::*get)() const,
                  void (TrelanBusSettings::*set)(qint64), const char *text)
    {
        addSize(name, get, set, text)->check(CLI::Range(qint64(1), MAX_BYTES, "1 to 1 TiB"));
    }
    void addFrame(const char *name, qint64 (TrelanBusSettings::*get)() const,
                  void (TrelanBusSettings::*set)(qint64), const char *text)
    {
        addSize(name, get, set, text)->check(CLI::Range(qint64(1), MAX_FRAME, "1 to 1 GiB"));
    }

private:
    CLI::Option *addSize(const char *name, qint64 (TrelanBusSettings::*get)() const,
                         void (TrelanBusSettings::*set)(qint64), const char *text)
    {
        return add(name, get, set, text)->transform(CLI::AsSizeValue(false))->group(LIMITS);
    }

    CLI::App &_app;
    TrelanBusSettings &_settings;
};

void addLimits(CLI::App &app, Options &options)
{
    using Settings = TrelanBusSettings;
    Numbers numbers(app, options.settings);
    numbers.addFrame("--max-frame", &Settings::maxFrameSize, &Settings::setMaxFrameSize,
                     "Largest payload of a frame");
    numbers.addFrame("--max-inflated", &Settings::maxInflatedSize, &Settings::setMaxInflatedSize,
                     "Largest inflated request");
    numbers.addCount("--max-connections", &Settings::maxConnections, &Settings::setMaxConnections,
                     "Connections at a time");
    numbers.addCount("--max-objects", &Settings::maxObjects, &Settings::setMaxObjects,
                     "Stored objects");
    numbers.addBytes("--max-bytes", &Settings::maxObjectBytes, &Settings::setMaxObjectBytes,
                     "Stored objects together, in bytes");
    numbers.addCount("--max-subscriptions", &Settings::maxSubscriptions,
                     &Settings::setMaxSubscriptions, "Wildcards of one client");
    numbers.addCount("--max-client-messages", &Settings::maxClientMessages,
                     &Settings::setMaxClientMessages, "What waits for one client");
    numbers.addBytes("--max-client-bytes", &Settings::maxClientBytes, &Settings::setMaxClientBytes,
                     "What waits for one client, in bytes");
    numbers.addCount("--max-client-names", &Settings::maxClientNames, &Settings::setMaxClientNames,
                     "Objects whose newest value waits for one client");
    numbers.addCount("--conflate-above", &Settings::conflateAbove, &Settings::setConflateAbove,
                     "What waits for one client before only the newest value of an object does");
    app.add_option("--message-lifetime", options.messageLifetime,
                   "Seconds for which a message waits for its receiver")
        ->capture_default_str()
        ->check(CLI::Range(1, MAX_SECONDS))
        ->group(LIMITS);
    numbers.addCount("--max-queues", &Settings::maxQueues, &Settings::setMaxQueues,
                     "Absent clients that something waits for");
    numbers.addBytes("--max-queued-bytes", &Settings::maxQueuedBytes, &Settings::setMaxQueuedBytes,
                     "What waits for all clients together, in bytes");
}

} // namespace

void addOptions(CLI::App &app, Options &options)
{
    app.set_version_flag("--version", "trelanbusd " TRELAN_VERSION);
    app.add_option("--host", options.host, "IPv4 address to listen on")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    Numbers ports(app, options.settings);
    ports.add("--query-port", &TrelanBusSettings::queryPort, &TrelanBusSettings::setQueryPort,
              "Port of the query channel; 0 takes any free one");
    ports.add("--msg-port", &TrelanBusSettings::msgPort, &TrelanBusSettings::setMsgPort,
              "Port of the message channel; 0 takes any free one");
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
    options.settings.setHost(QHostAddress(QString::fromStdString(options.host)));
    options.settings.setDataFolder(QString::fromStdString(options.dataFolder));
    options.settings.setRequireStorage(true);
    options.settings.setMessageLifetime(options.messageLifetime * MS_OF_SECOND);
}

} // namespace trelanbusd
