#include <trelanbus.h>

#include <CLI/CLI.hpp>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QSaveFile>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTextCodec>

#include <systemd/sd-daemon.h>

#include <csignal>
#include <cstdio>
#include <sys/signalfd.h>
#include <unistd.h>

namespace
{

// A frame is one block in memory, and no block is larger than 2 GiB.
constexpr qint64 MAX_FRAME = 1LL << 30;
constexpr qint64 MAX_BYTES = 1LL << 40;
constexpr int MAX_COUNT = 100 * 1000 * 1000;

enum ExitCode { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

struct Options
{
    bus::TrelanBusSettings settings;
    std::string host = "127.0.0.1";
    std::string dataFolder;
    std::string portFile;
    std::string logLevel = "info";
};

void addLimits(CLI::App &app, bus::TrelanBusSettings &settings)
{
    const auto size = CLI::AsSizeValue(false);
    const CLI::Range frame(qint64(1), MAX_FRAME, "1 to 1 GiB");
    const CLI::Range bytes(qint64(1), MAX_BYTES, "1 to 1 TiB");
    const CLI::Range count(1, MAX_COUNT);
    const char *group = "Limits";
    app.add_option("--max-frame", settings.maxFrameSize, "Largest payload of a frame")
        ->transform(size)
        ->check(frame)
        ->capture_default_str()
        ->group(group);
    app.add_option("--max-inflated", settings.maxInflatedSize, "Largest inflated request")
        ->transform(size)
        ->check(frame)
        ->capture_default_str()
        ->group(group);
    app.add_option("--max-connections", settings.maxConnections, "Connections at a time")
        ->check(count)
        ->capture_default_str()
        ->group(group);
    app.add_option("--max-objects", settings.maxObjects, "Stored objects")
        ->check(count)
        ->capture_default_str()
        ->group(group);
    app.add_option("--max-bytes", settings.maxObjectBytes, "Stored objects together, in bytes")
        ->transform(size)
        ->check(bytes)
        ->capture_default_str()
        ->group(group);
    app.add_option("--max-subscriptions", settings.maxSubscriptions, "Wildcards of one client")
        ->check(count)
        ->capture_default_str()
        ->group(group);
}

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
    addLimits(app, options.settings);
}

void configureLog(const QString &level)
{
    QString rules;
    for (const auto *name : {"debug", "info", "warning", "critical"}) {
        if (level == QLatin1String(name))
            break;
        rules += QStringLiteral("*.%1=false\n").arg(QLatin1String(name));
    }
    QLoggingCategory::setFilterRules(rules);
    // The journal stamps the time itself, and reads the level off the number in front.
    const bool toJournal = qEnvironmentVariableIsSet("JOURNAL_STREAM");
    qSetMessagePattern(
        toJournal
            ? QStringLiteral("%{if-debug}<7>%{endif}%{if-info}<6>%{endif}%{if-warning}<4>%{endif}"
                             "%{if-critical}<3>%{endif}%{if-fatal}<2>%{endif}%{message}")
            : QStringLiteral("%{time yyyy-MM-dd hh:mm:ss.zzz} %{type} %{message}"));
}

/// SIGTERM and SIGINT as bytes to read. Blocked before any thread is started, since every thread
/// inherits that.
int openSignals()
{
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGTERM);
    sigaddset(&handled, SIGINT);
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    return signalfd(-1, &handled, SFD_NONBLOCK | SFD_CLOEXEC);
}

int fail(const QString &reason)
{
    std::fprintf(stderr, "trelanbusd: %s\n", qUtf8Printable(reason));
    return EXIT_FAILED;
}

/// Returns what went wrong, or nothing.
QString writePortFile(const QString &path, const bus::TrelanBus &server)
{
    // At once, so that whoever waits for the file never reads half a line.
    QSaveFile file(path);
    const QByteArray lines = "query=" + QByteArray::number(server.queryPort()) +
                             "\nmsg=" + QByteArray::number(server.msgPort()) + "\n";
    if (file.open(QIODevice::WriteOnly) && file.write(lines) > 0 && file.commit())
        return {};
    return QStringLiteral("cannot write the port file %1: %2").arg(path, file.errorString());
}

int run(QCoreApplication &app, const Options &options, int signalFd)
{
    bus::TrelanBus server;
    if (!server.start(options.settings))
        return fail(server.errorString());
    const QString portFile = QString::fromStdString(options.portFile);
    if (!portFile.isEmpty()) {
        const QString fault = writePortFile(portFile, server);
        if (!fault.isEmpty())
            return fail(fault);
    }

    const QSocketNotifier notifier(signalFd, QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
    qInfo().noquote() << QStringLiteral("trelanbusd %1 listens on %2:%3 and %2:%4")
                             .arg(QStringLiteral(TRELAN_VERSION), options.settings.host.toString())
                             .arg(server.queryPort())
                             .arg(server.msgPort());
    sd_notify(0, "READY=1");
    QCoreApplication::exec();
    sd_notify(0, "STOPPING=1");
    server.stop();
    qInfo("trelanbusd has ended");
    return EXIT_DONE;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App cli("Trelan's bus server: keeps shared objects and answers the applications of this "
                 "machine.");
    Options options;
    addOptions(cli, options);
    try {
        cli.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return cli.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    options.settings.host = QHostAddress(QString::fromStdString(options.host));
    options.settings.dataFolder = QString::fromStdString(options.dataFolder);
    options.settings.requireStorage = true;

    const int signalFd = openSignals();
    QCoreApplication app(argc, argv);
    // Paths and log lines are UTF-8 also in the C locale that a service starts in.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    configureLog(QString::fromStdString(options.logLevel));
    return run(app, options, signalFd);
}
