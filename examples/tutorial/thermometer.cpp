#include <trelanqueryhandler.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);
    bus::TrelanTransport::setCoding(bus::TrelanTransport::Light);

    bus::TrelanObject room;
    room.setName("room.attic");
    room.setContent({{"celsius", application.arguments().value(1).toDouble()}});

    bus::TrelanQueryHandler handler("thermometer");
    if (handler.open() && handler.publish(room))
        return 0;
    qCritical() << handler.lastFailure() << handler.lastError().description();
    return 1;
}
