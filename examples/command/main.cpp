#include <sharedobjectsstorage.h>
#include <trelancontroller.h>
#include <trelanmsgworker.h>
#include <trelanqueryworker.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QTimer>

namespace
{

constexpr int ASK_AGAIN_MS = 1000;
constexpr int GIVE_UP_MS = 15000;

/// A client that can send commands. A controller does not connect that signal by itself.
class CommandController : public bus::TrelanController
{
public:
    using TrelanController::TrelanController;

protected:
    bool doStart() override
    {
        return initWorkers(new bus::TrelanMsgWorker(clientName()),
                           new bus::TrelanQueryWorker(clientName(), {}));
    }

    void prepareQueryWorker(bus::TrelanQueryWorker *worker) override
    {
        connect(this, &CommandController::sendCommand, worker, &bus::TrelanQueryWorker::sendCommand,
                Qt::QueuedConnection);
    }
};

/// Answers every "ping" until the program is ended.
int answerPings(CommandController &controller)
{
    QObject::connect(&controller, &CommandController::unprocessedCommand, &controller,
                     [&](const bus::TrelanCommand &call) {
                         if (call.name() != "ping" || !call.needAnswer())
                             return;
                         bus::TrelanCommand answer;
                         answer.setName(call.name());
                         answer.setReciever(call.sender());
                         answer.setParentUid(call.uid());
                         answer.setParams({{"at", QDateTime::currentDateTime()}});
                         emit controller.sendCommand(answer);
                     });
    return QCoreApplication::exec();
}

/// Sends one "ping" to the client \a name and prints what comes back.
int ping(CommandController &controller, const QString &name)
{
    bus::TrelanCommand call;
    call.setName("ping");
    call.setReciever(name);
    call.setNeedAnswer(true);
    call.setUid(call.genUid());

    QObject::connect(&controller, &CommandController::unprocessedCommand, &controller,
                     [&](const bus::TrelanCommand &answer) {
                         if (answer.parentUid() != call.uid())
                             return;
                         // The message worker has stored the answer beside its call.
                         const auto pair = bus::SharedObjectsStorage().takeCmd(call.uid());
                         qInfo() << pair.first.name() << "answered by" << pair.second.sender()
                                 << pair.second.params();
                         QCoreApplication::quit();
                     });
    // A command that is emitted while there is no connection is dropped, and nothing tells. One for
    // a client that is not there waits in the bus; that client drops the repetitions, by their uid.
    QTimer askAgain;
    QObject::connect(&askAgain, &QTimer::timeout, &controller,
                     [&] { emit controller.sendCommand(call); });
    askAgain.start(ASK_AGAIN_MS);
    QTimer::singleShot(GIVE_UP_MS, &controller, [] { QCoreApplication::exit(1); });
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QCommandLineParser options;
    options.addPositionalArgument("client", "Whom to ping; without it, pings are answered",
                                  "[client]");
    options.addOptions({{"name", "Name of this client", "name", "pinger"},
                        {"msg-port", "Message port of the bus", "port", "43537"},
                        {"query-port", "Query port of the bus", "port", "43535"}});
    options.addHelpOption();
    options.process(application);

    CommandController controller(options.value("name"));
    controller.setBus("127.0.0.1", options.value("msg-port").toUShort(),
                      options.value("query-port").toUShort());
    const QStringList clients = options.positionalArguments();
    return clients.isEmpty() ? answerPings(controller) : ping(controller, clients.first());
}
