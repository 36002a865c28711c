#include <trelanclient.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

#include <algorithm>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    bus::TrelanClient client("alarm");
    QMap<QString, double> rooms; // how warm each is

    const auto changed = [&rooms](const bus::TrelanObject &room) {
        rooms[room.name()] = room.content().value("celsius").toDouble();
        if (rooms[room.name()] > 30)
            qWarning() << "too hot:" << room.name();
    };
    const auto removed = [&rooms](const QString &name) { rooms.remove(name); };
    client.watch("room.*", &application, changed, removed);

    client.serve("warmest", &application, [&rooms](const bus::TrelanCommand &) {
        const auto warmest = std::max_element(rooms.cbegin(), rooms.cend());
        if (warmest == rooms.cend())
            return QVariantMap {{"error", "there is no room"}};
        return QVariantMap {{"room", warmest.key()}, {"celsius", *warmest}};
    });
    return QCoreApplication::exec();
}
