#include "../ports.h"

#include <trelanqueryhandler.h>

#include <QtCore/QCoreApplication>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    examples::usePorts();

    bus::TrelanQueryHandler handler("thermometer");
    bus::TrelanObject room;
    room.setName("room.kitchen");
    room.setContent({{"celsius", 21.5}});
    return handler.open() && handler.publish(room) ? 0 : 1;
}
