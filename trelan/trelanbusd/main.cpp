#include "environment.h"
#include "options.h"

#include <standarddescriptors.h>
#include <trelanbus.h>

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

using namespace trelanbusd;

namespace
{

void configureLog(const QString &level)
{
    QString rules;
    for (const auto *name : {"debug", "info", "warning", "critical"}) {
        if (level == QLatin1String(name))
            break;
        rules += QStringLiteral("*.%1=false\n").arg(QLatin1String(name));
    }
    QLoggingCategory::setFilterRules(rules);
    // The journal stamps the time itself and reads the level off the number in front.
    qSetMessagePattern(
        logsToJournal()
            ? QStringLiteral("%{if-debug}<7>%{endif}%{if-info}<6>%{endif}%{if-warning}<4>%{endif}"
                             "%{if-critical}<3>%{endif}%{if-fatal}<2>%{endif}%{message}")
            : QStringLiteral("%{time yyyy-MM-dd hh:mm:ss.zzz} %{type} %{message}"));
}

/// Makes SIGTERM and SIGINT bytes to read. To be called before any thread is started, since threads
/// inherit which signals are blocked.
int openSignals()
{
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGTERM);
    sigaddset(&handled, SIGINT);
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    return signalfd(-1, &handled, SFD_NONBLOCK | SFD_CLOEXEC);
}

/// Says why the daemon ends, under its own name.
int fail(const QString &reason)
{
    std::fprintf(stderr, "trelanbusd: %s\n", qUtf8Printable(reason));
    return EXIT_FAILED;
}

/// Returns what went wrong; empty if nothing did.
QString writePortFile(const QString &path, const bus::TrelanBus &server)
{
    // The file appears as a whole, so that whoever waits for it never reads half a line.
    QSaveFile file(path);
    const QByteArray lines = "query=" + QByteArray::number(server.queryPort()) +
                             "\nmsg=" + QByteArray::number(server.msgPort()) + "\n";
    if (file.open(QIODevice::WriteOnly) && file.write(lines) > 0 && file.commit())
        return {};
    return QStringLiteral("cannot write the port file %1: %2").arg(path, file.errorString());
}

/// "127.0.0.1:43535 and 127.0.0.1:43537", or the ports alone if the sockets were handed over.
QString whereItListens(const bus::TrelanBus &server, const bus::TrelanBusSettings &settings)
{
    const bool given = settings.queryDescriptor() >= 0;
    return (given ? QStringLiteral("the ports %2 and %3 of the service manager")
                  : QStringLiteral("%1:%2 and %1:%3").arg(settings.host().toString()))
        .arg(server.queryPort())
        .arg(server.msgPort());
}

int run(QCoreApplication &app, const Options &options, int signalFd)
{
    const QString shortage = raiseDescriptorLimit(options.settings.maxConnections());
    if (!shortage.isEmpty())
        qWarning().noquote() << shortage;
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
    qInfo().noquote() << "trelanbusd" << TRELAN_VERSION << "listens on"
                      << whereItListens(server, options.settings);
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
    programs::occupyStandardDescriptors();
    bus::TrelanTransport::setCoding(bus::TrelanTransport::Light); // before the settings are made
    Options options;
    if (const std::optional<ExitCode> end = readOptions(argc, argv, options))
        return *end;
    const QString fault = takeSockets(options.settings);
    if (!fault.isEmpty())
        return fail(fault);

    const int signalFd = openSignals();
    QCoreApplication app(argc, argv);
    // Paths and log lines are UTF-8, also in the C locale that a service starts in.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    configureLog(QString::fromStdString(options.logLevel));
    return run(app, options, signalFd);
}
