#include "../ports.h"

#include <trelanclient.h>

#include <QtCore/QCoreApplication>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const auto settings = examples::busSettings();

    bus::TrelanClient client("thermometer", settings);
    const auto published = client.publish("room.kitchen", {{"celsius", 21.5}});
    return published.wait() && published.isDone() ? 0 : 1;
}
