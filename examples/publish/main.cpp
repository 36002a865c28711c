#include <trelanqueryhandler.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);

    bus::TrelanQueryHandler handler("thermometer");
    bus::TrelanObject room;
    room.setName("room.kitchen");
    room.setContent({{"celsius", 21.5}});
    if (!handler.open() || !handler.publish(room) || !handler.loadObject(room.name(), room))
        return 1;
    qInfo() << room.name() << room.content() << "from" << room.publisher();
    return 0;
}
