#include "../ports.h"

#include <trelanclient.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const auto settings = examples::busSettings();

    bus::TrelanClient client("watch", settings);
    client.watch("room.*", &client,
                 [](const auto &room) { qInfo() << room.name() << room.content(); });
    return QCoreApplication::exec();
}
