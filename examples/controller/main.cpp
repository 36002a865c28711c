#include "../ports.h"
#include "thermostat.h"

#include <loggermanager.h>
#include <trelanlogcreator.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

#include <cstdio>

namespace
{

constexpr int REPEAT_INTERVAL_MS = 5000;

void printLine(QtMsgType, const QMessageLogContext &, const QString &text)
{
    std::fprintf(stderr, "%s\n", qUtf8Printable(text));
}

/// Sends what is logged from now on to the terminal and to the client "logger" of the bus.
void installLogBridge(Thermostat &thermostat)
{
    bus::TrelanLogCreator::init(&thermostat, SIGNAL(sendLogMessage(TrelanMessage)),
                                thermostat.clientName(), REPEAT_INTERVAL_MS);
    thermostat.setLogBridgeInstalled(true);
    LoggerManager::addOutput(bus::LOGGER().categoryName(), bus::TrelanLogCreator::humanKelLog);
    LoggerManager::addOutput("terminal", printLine);
    LoggerManager::install();
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    examples::usePorts();

    Thermostat thermostat;
    installLogBridge(thermostat);
    thermostat.setBus("127.0.0.1", bus::TrelanMessageReciever::msgPort(),
                      bus::TrelanQueryHandler::queryPort());
    return QCoreApplication::exec();
}
