#include "../ports.h"

#include <trelanclient.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QString receiver = examples::argument();
    const bool isCaller = !receiver.isEmpty();
    bus::TrelanClient client(isCaller ? "pinger" : "answerer", examples::busSettings());
    if (!isCaller) {
        client.serve("ping", &client, [](const bus::TrelanCommand &call) {
            return QVariantMap {{"hello", call.sender()}};
        });
        return QCoreApplication::exec();
    }
    const auto answer = client.call(receiver, "ping");
    answer.wait();
    qInfo().noquote() << answer.result() << answer.failure().toString();
    return answer.isDone() ? 0 : 1;
}
