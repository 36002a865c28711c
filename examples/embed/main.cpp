#include <trelanbus.h>
#include <trelanqueryhandler.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);

    bus::TrelanBusSettings settings;
    settings.setQueryPort(0); // any free port
    settings.setMsgPort(0);
    bus::TrelanBus server;
    if (!server.start(settings)) {
        qCritical().noquote() << server.errorString();
        return 1;
    }
    bus::TrelanQueryHandler::setQueryPort(server.queryPort());

    bus::TrelanQueryHandler handler("thermometer");
    bus::TrelanObject room;
    room.setName("room.kitchen");
    room.setContent({{"celsius", 21.5}});
    QMap<QString, bus::TrelanObject> rooms;
    if (!handler.open() || !handler.publish(room) || !handler.loadObjects("room.*", rooms))
        return 1;
    for (const bus::TrelanObject &loaded : qAsConst(rooms))
        qInfo() << loaded.name() << loaded.content() << "from" << loaded.publisher();
    return 0;
}
