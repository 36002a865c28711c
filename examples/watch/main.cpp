#include "../ports.h"

#include <trelanmessagereciever.h>
#include <trelanqueryhandler.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    examples::usePorts();

    bus::TrelanQueryHandler queries("watch");
    bus::TrelanMessageReciever messages("watch");
    QObject::connect(&messages, &bus::TrelanMessageReciever::incomingObject,
                     [](const auto &room) { qInfo() << room.name() << room.content(); });
    const bool watching = messages.open() && queries.open() && queries.subscribeNow("room.*");
    return watching ? QCoreApplication::exec() : 1;
}
