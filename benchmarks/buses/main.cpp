#include "arrivals.h"
#include "bus.h"
#include "measuring.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonDocument>
#include <QtCore/QLoggingCategory>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

// One process of a measurement, started and told what to do by busbench.py:
//   serve BUS
//   publish BUS ARRIVALS PIDS ADDRESS...  reads "KIND BYTES RECEIVERS MS", answers with figures
//   receive BUS ARRIVALS NUMBER ADDRESS...
// It says "ready" when it can be used.

namespace
{

void say(const QByteArray &line)
{
    std::puts(line.constData());
    std::fflush(stdout);
}

int fail(const char *why)
{
    std::fprintf(stderr, "%s\n", why);
    return 1;
}

int publish(Bus &bus, const QStringList &arguments)
{
    Arrivals arrivals;
    if (!arrivals.create(arguments.value(0)))
        return fail("cannot make the file of arrivals");
    const auto publisher = bus.connectPublisher();
    if (!publisher)
        return fail("the publisher has not connected");
    QList<int> server;
    for (const QString &process : arguments.value(1).split(QLatin1Char(',')))
        server.append(process.toInt());
    Measuring measuring(*publisher, arrivals, server);
    ready();
    std::string line;
    while (std::getline(std::cin, line)) {
        const QStringList words = QString::fromStdString(line).split(QLatin1Char(' '));
        const QJsonObject figures = measuring.run({words.value(0), words.value(1).toInt(),
                                                   words.value(2).toInt(), words.value(3).toInt()});
        say(QJsonDocument(figures).toJson(QJsonDocument::Compact));
    }
    return 0;
}

int receive(Bus &bus, const QStringList &arguments)
{
    Arrivals arrivals;
    if (!arrivals.open(arguments.value(0)))
        return fail("cannot open the file of arrivals");
    std::vector<std::unique_ptr<Receiver>> receivers;
    for (int number = 0; number < arguments.value(1).toInt(); ++number) {
        receivers.push_back(bus.connectReceiver(number, arrivals));
        if (!receivers.back())
            return fail("a receiver has not connected");
    }
    ready();
    bus.receive();
    return 0;
}

} // namespace

void ready(const QStringList &address)
{
    say((QStringList {QStringLiteral("ready")} + address).join(QLatin1Char(' ')).toUtf8());
}

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("trelan.bus.info=false"));
    const QStringList arguments = QCoreApplication::arguments();
    const QString role = arguments.value(1);
    const bool serves = role == QLatin1String("serve");
    const auto bus = makeBus(arguments.value(2), arguments.mid(serves ? 3 : 5));
    if (!bus)
        return fail("there is no such bus");
    if (role == QLatin1String("publish"))
        return publish(*bus, arguments.mid(3));
    if (role == QLatin1String("receive"))
        return receive(*bus, arguments.mid(3));
    if (!serves)
        return fail("serve, publish or receive?");
    bus->serve();
    return fail("the server has ended");
}
