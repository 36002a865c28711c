#include <trelanclient.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const double celsius = application.arguments().value(1).toDouble();

    bus::TrelanClient client("thermometer");
    const auto published = client.publish("room.attic", {{"celsius", celsius}});
    if (published.wait() && published.isDone())
        return 0;
    qCritical().noquote() << published.failure().toString();
    return 1;
}
