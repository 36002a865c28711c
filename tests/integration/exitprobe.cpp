/// \file
/// A program that calls exit() while its workers run: exitprobe CASE MSGPORT QUERYPORT.
/// Prints nothing and ends with 7 if all is well.

#include <transport.h>
#include <trelanclient.h>
#include <trelancontroller.h>
#include <trelanmsgworker.h>
#include <trelanqueryworker.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QThread>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace
{

constexpr int OK = 7;
bool _exitsInWorker = false;
std::atomic_int _exits {0}; // workers that have yet to call exit()
std::atomic_bool _allStarted {false};
std::atomic_int _awaited {0}; // workers whose ends wait for each other

class Worker : public bus::TrelanQueryWorker
{
public:
    using TrelanQueryWorker::TrelanQueryWorker;
    ~Worker() override
    {
        for (--_awaited; _awaited > 0;)
            QThread::yieldCurrentThread();
    }
    bool doStart() override
    {
        // Of what is static it is made last, and so the first to be destroyed.
        static const auto _text = QStringLiteral("on the heap %1").arg(1);
        TrelanQueryWorker::doStart();
        // While main() makes what is static work, its end would be a race of this program's own.
        while (_exitsInWorker && !_allStarted)
            QThread::yieldCurrentThread();
        if (_exitsInWorker && --_exits >= 0) {
            while (_exits > 0 && !thread()->isInterruptionRequested())
                QThread::yieldCurrentThread();
            std::exit(OK);
        }
        connect(this, &QObject::destroyed, this, [] {
            if (!_text.startsWith(QLatin1Char('o')))
                qFatal("static data went before the worker");
        });
        return true;
    }
};

class Controller : public bus::TrelanController
{
public:
    explicit Controller(const char *name)
        : TrelanController(QLatin1String(name) +
                           QString::number(QCoreApplication::applicationPid()))
    {}

protected:
    bool doStart() override
    {
        return initWorkers(new bus::TrelanMsgWorker(clientName()),
                           new Worker(clientName(), {QStringLiteral("probe.*")}));
    }
};

/// Makes clients that publish and watch, and ends the process.
int runClients(const QByteArray &what, quint16 messagePort, quint16 queryPort)
{
    QLoggingCategory::setFilterRules(QStringLiteral("trelan.client=false"));
    const auto settings = bus::TrelanClientSettings().setPorts(messagePort, queryPort);
    const QString name = QString::number(QCoreApplication::applicationPid());
    static bus::TrelanClient _staticClient(name + QStringLiteral("static"), settings);
    bus::TrelanClient stack(name + QStringLiteral("stack"), settings);
    auto *heap = new bus::TrelanClient(name + QStringLiteral("heap"), settings);
    QObject context;
    for (bus::TrelanClient *client : {&_staticClient, &stack, heap}) {
        client->watch(QStringLiteral("probe.*"), &context, [](const bus::TrelanObject &) {});
        for (int i = 0; i < 100; ++i)
            client->publish(QStringLiteral("probe.object"), {});
    }
    if (what.contains("connected"))
        heap->waitForConnected();
    if (what.contains("thread"))
        QObject::connect(heap, &bus::TrelanClient::stateChanged, [] { std::exit(OK); });
    if (what.contains("thread") && !heap->state().isConnected()) // else it was told before
        ::pause();
    if (what.contains("exit") || what.contains("thread"))
        std::exit(OK);
    return OK; // which leaves the client on the heap
}

Controller _static("static"); // NOLINT(cert-err58-cpp): that is what is tried

} // namespace

int main(int argc, char **argv)
{
    const QByteArray what(argv[1]);
    const std::unique_ptr<QCoreApplication> app(
        what.contains("noapp") ? nullptr : new QCoreApplication(argc, argv));
    if (what.contains("client"))
        return runClients(what, QByteArray(argv[2]).toUShort(), QByteArray(argv[3]).toUShort());
    _exitsInWorker = what.contains("worker");
    _awaited = what.contains("together") ? 2 : 0;
    _exits = what.contains("three") ? 3 : what.contains("two") ? 2 : 1;
    bus::TrelanObject object;
    object.setName(QStringLiteral("probe.object"));

    Controller stack("stack");
    auto *heap = new Controller("heap");
    for (Controller *controller : {&stack, heap, &_static}) {
        if (controller != &_static || what.contains("static"))
            controller->setBus(QStringLiteral("127.0.0.1"), QByteArray(argv[2]).toUShort(),
                               QByteArray(argv[3]).toUShort());
        for (int i = 0; i < 100; ++i)
            emit controller->publish(object);
    }
    _allStarted = true;
    if (what.contains("slot"))
        QObject::connect(heap, &Controller::unprocessedObject, [] { std::exit(OK); });
    if (what.contains("slot") || (_exitsInWorker && !what.contains("return")))
        return app ? QCoreApplication::exec() : ::pause();
    if (!what.contains("return"))
        std::exit(OK);
    delete heap;
    return OK;
}
