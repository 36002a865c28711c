#include "hostsampler.h"
#include "statepublisher.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QLoggingCategory>
#include <QtCore/QSysInfo>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QHostInfo>

#include <CLI/CLI.hpp>

#include <csignal>

#include <poll.h>

namespace
{

enum ExitCode { Done = 0, Refused = 1, Usage = 2, NoBus = 3 };

struct Options
{
    std::string host = "127.0.0.1";
    quint16 queryPort = bus::TrelanQueryHandler::DEFAULT_PORT;
    std::string clientName = "hoststate";
    double interval = 1;
    double seconds = 10;
};

volatile std::sig_atomic_t _stopped = 0;

// Makes the first signal end the program after its current round, and a second signal at once.
void stopOnSignals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { _stopped = 1; };
    action.sa_flags = int(SA_RESETHAND);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

void addOptions(CLI::App &app, Options &options)
{
    app.add_option("--host", options.host, "IPv4 address or host name of the bus")
        ->capture_default_str();
    app.add_option("--query-port", options.queryPort, "its query port")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    app.add_option("--name", options.clientName, "client name to use")->capture_default_str();
    app.add_option("--interval", options.interval, "seconds from one round to the next")
        ->check(CLI::Range(0.1, 86400.0))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "how long to publish; 0 is until Ctrl-C")
        ->check(CLI::Range(0.0, 1e9))
        ->capture_default_str();
}

/// Tells the library where the bus is. False if \a host has no IPv4 address.
bool setBus(const QString &host, quint16 port)
{
    const QHostAddress literal(host);
    const QList<QHostAddress> found =
        literal.isNull() ? QHostInfo::fromName(host).addresses() : QList<QHostAddress> {literal};
    for (const QHostAddress &address : found) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol) {
            bus::TrelanQueryHandler::setQueryHost(address.toIPv4Address());
            bus::TrelanQueryHandler::setQueryPort(port);
            bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);
            bus::TrelanTransport::setCoding(bus::TrelanTransport::Light);
            return true;
        }
    }
    hoststate::say("no bus: the host '" + host + "' has no IPv4 address");
    return false;
}

void publishInRounds(hoststate::StatePublisher &publisher, const Options &options)
{
    const hoststate::HostSampler sampler(QSysInfo::machineHostName());
    const qint64 interval = qint64(options.interval * 1000);
    const qint64 end = qint64(options.seconds * 1000);
    QElapsedTimer clock;
    clock.start();
    for (qint64 next = 0; _stopped == 0 && (end == 0 || next < end);) {
        publisher.publish(sampler.sample());
        // A round that took longer than its interval delays the next ones.
        next = qMax(next + interval, clock.elapsed());
        if (_stopped == 0 && (end == 0 || next < end))
            ::poll(nullptr, 0, int(qMax<qint64>(0, next - clock.elapsed()))); // a signal ends it
    }
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    // This program says in its own words what the library logs; QT_LOGGING_RULES shows those lines.
    QLoggingCategory::setFilterRules("default.warning=false\ndefault.critical=false");

    Options options;
    CLI::App app("Publishes the state of this machine as objects host.<name>.*", "hoststate");
    addOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? Done : Usage;
    }

    if (!setBus(QString::fromStdString(options.host), options.queryPort))
        return NoBus;
    hoststate::StatePublisher publisher(QString::fromStdString(options.clientName));
    if (!publisher.open())
        return publisher.wasRefused() ? Refused : NoBus;
    stopOnSignals();
    publishInRounds(publisher, options);
    hoststate::say(QString("%1 objects published, %2 refused")
                       .arg(publisher.published())
                       .arg(publisher.refused()));
    if (!publisher.hasBus())
        return NoBus;
    return publisher.wasRefused() ? Refused : Done;
}
