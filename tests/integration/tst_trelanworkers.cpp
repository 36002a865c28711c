#include <logcapture.h>
#include <loggermanager.h>
#include <rawpeer.h>
#include <scriptedserver.h>
#include <sharedobjectsstorage.h>
#include <testsupport.h>
#include <testtable.h>
#include <transport.h>
#include <trelancontroller.h>
#include <trelanlogcreator.h>
#include <trelanmsgworker.h>
#include <trelanqueryhandler.h>
#include <trelanqueryworker.h>

#include <QtCore/QProcess>
#include <QtNetwork/QTcpSocket>

#include <atomic>
#include <list>
#include <memory>

#include <sys/socket.h>
#include <unistd.h>

using namespace bus;
using Server = ScriptedServer;

namespace
{

const QString HOST = "127.0.0.1";
const QByteArray STORED = "{'__reason__':'sub','__name__':'stored','__context__':{}}";
const bool SOAK = qEnvironmentVariableIsSet("TRELAN_SOAK");

class Controller : public TrelanController
{
public:
    QFlags<TrelanMsgWorker::Option> options;
    QFlags<TrelanQueryWorker::Option> queryOptions;
    int started = 0, stopped = 0;
    QStringList seen;                                // what the workers handed on
    std::atomic<int> msgThread {0}, queryThread {0}; // ids, which the system counts up

    explicit Controller(const QString &name)
        : TrelanController(name)
    {
        connect(this, &Controller::unprocessedMessage,
                [this](const auto &got) { note(got.message()); });
        connect(this, &Controller::unprocessedObject,
                [this](const auto &got) { note(got.name()); });
        connect(this, &Controller::unprocessedCommand,
                [this](const auto &got) { note(got.name()); });
        connect(this, &Controller::objectLoaded, [this](const auto &got) { note(got.name()); });
    }

    bool doStart() override
    {
        auto *queries = new TrelanQueryWorker(clientName(), {"a.*", "b.*"});
        queries->setOptions(queryOptions);
        return initWorkers(new TrelanMsgWorker(clientName(), options), queries);
    }

protected:
    void prepareMsgWorker(TrelanMsgWorker *worker) override
    {
        connect(worker->thread(), &QThread::started, [this] { msgThread = ::gettid(); });
    }
    void prepareQueryWorker(TrelanQueryWorker *worker) override
    {
        connect(worker->thread(), &QThread::started, [this] { queryThread = ::gettid(); });
        connect(this, SIGNAL(sendCommand(TrelanCommand)), worker, SLOT(sendCommand(TrelanCommand)));
    }
    void processStartedWorker() override { ++started; }
    void processStoppedWorker() override { ++stopped; }

private:
    void note(const QString &text)
    {
        seen << (QThread::currentThread() == thread() ? text : text + " in another thread");
    }
};

/// A delivery of a message with this uid.
QByteArray push(const QByteArray &uid, QByteArray text)
{
    text.replace('\'', "\\\"");
    const QByteArray data = R"({"s":"bus","r":"me","uid":")" + uid + R"(","msg":")" + text + "\"}";
    return Server::frame("[-REQUEST-]",
                         Server::payload(R"({"operation":"sendMessage","data":)" + data + "}"));
}

/// Delivers one message after the other, each when the one before is acknowledged.
void pushForever(ScriptedPeer &peer)
{
    QByteArray next = Server::reply("handshake");
    for (int uid = 0;
         peer.readFrame() && peer.send(next + push(QByteArray::number(++uid), STORED));)
        next.clear();
}

/// Accepts every request, and answers each with an object, for those that load one.
void serveQueries(ScriptedPeer &peer)
{
    const QByteArray object = R"({"nm":"loaded"})";
    while (peer.readFrame() &&
           peer.send(Server::reply(peer.frame.operation.toUtf8(), 0, {}, object))) {}
}

QString text(const ScriptedFrame &frame)
{
    return frame.operation + frame.data.value("wc", frame.data.value("wcs")).toString();
}

QString operations(const Server &server, int from = 0)
{
    QStringList texts;
    for (const ScriptedFrame &frame : server.frames().mid(from))
        texts << text(frame);
    return texts.join(' ');
}

TrelanObject named(const QString &name)
{
    TrelanObject object;
    object.setName(name);
    return object;
}

} // namespace

/// The workers and the controller, with a real bus for queries and scripted peers for the rest.
class tst_TrelanWorkers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everySignalArrivesOnce()
    {
        const Server server(serveQueries);
        Controller controller("me");
        int queriesFirst = 0;
        for (int i = 1; i < 4; ++i) {
            if (i == 2) { // workers that are made without start() are stopped like others
                controller.stop();
                controller.doStart();
            } else {
                controller.setBus(HOST, server.port(), server.port());
            }
            QTRY_COMPARE(controller.started, 2 * i);
            QCOMPARE(controller.stopped, 2 * (i - 1));
            queriesFirst += controller.queryThread < controller.msgThread ? 1 : 0;
        }
        QVERIFY(queriesFirst >= 2); // the system may start its numbers anew, but not twice
        QTRY_COMPARE(operations(server).count("subb.*"), 3);
        const int before = server.frames().size();
        TrelanCommand command;
        command.setName("call");
        command.setReciever("you");
        command.setNeedAnswer(true);

        emit controller.publish(named("x"));
        emit controller.subscribe(QString("c"));
        emit controller.subscribe(QStringList {"d", "e"});
        emit controller.unsubscribe(QString("c"));
        emit controller.unsubscribe(QStringList {"d", "e"});
        emit controller.sendMessage(TrelanMessage());
        emit controller.sendLogMessage(TrelanMessage());
        emit controller.sendCommand(command);
        emit controller.loadObject("x");
        QTRY_COMPARE(controller.seen, QStringList("loaded"));
        QVERIFY(SharedObjectsStorage().contains("loaded"));
        QCOMPARE(
            operations(server, before),
            "pub subc subd::e unsubc unsubd::e sendMessage sendMessage sendMessage loadObject");
        const QString uid = server.frames().at(before + 7).data.value("uid").toString();
        QCOMPARE(SharedObjectsStorage().getCmd(uid).first.uid(), uid);
        QCOMPARE(uid.size(), 28);
        controller.stop();
        controller.stop();
        QCOMPARE(controller.stopped, 6);

        const LogCapture log;
        for (const auto &[host, msg, query] :
             {std::tuple("", 1, 1), {"127.0.0.1", 0, 1}, {"127.0.0.1", 1, 0}}) {
            controller.setBus("localhost", server.port(), server.port());
            QVERIFY(controller.isStarted());
            controller.setBus(host, msg * server.port(), query * server.port());
            QVERIFY(!controller.isStarted() && controller.findChildren<QThread *>().isEmpty());
        }
        QCOMPARE(log.texts().filter("warning: ").filter("\"localhost\"").size(), 3);
    }

    void everythingThatIsPushedArrives()
    {
        TestBus bus;
        const Server server([](ScriptedPeer &peer) {
            peer.readFrame();
            peer.send(Server::reply("handshake") + push("1", "hello") + push("2", STORED) +
                      push("3", "{'__cmd__':{'__name__':'answer','__parent__':'asked'}}"));
            peer.awaitEnd();
        });
        SharedObjectsStorage storage;
        storage.clear();
        TrelanCommand asked;
        asked.setUid("asked");
        storage.storeCmd(asked);
        for (const bool stored : {false, true}) {
            Controller controller("me");
            controller.options.setFlag(TrelanMsgWorker::StoreObjects, stored);
            controller.setBus(HOST, server.port(), bus.queryPort());
            QTRY_COMPARE(controller.seen, QStringList({"hello", "stored", "answer"}));
            QCOMPARE(storage.contains("stored"), stored);
            QVERIFY(storage.containsAnswer("asked"));
        }
    }

    void destructorTakesTheLogBridgeDown()
    {
        for (const bool installed : {false, true}) {
            LoggerManager::addOutput("logger", [](auto, auto &, auto &) {});
            TrelanLogCreator::init(this, SLOT(deleteLater()), "me", 0);
            {
                Controller controller("me");
                controller.setLogBridgeInstalled(installed);
            }
            QCOMPARE(LoggerManager::outputs().isEmpty(), installed);
            const std::unique_ptr<TrelanLogCreator> creator(TrelanLogCreator::createCreator());
            QCOMPARE(!creator, installed);
        }
    }

    void downChannelDropsButTraces()
    {
        const LogCapture log;
        TrelanQueryWorker worker("me", {});
        TrelanCommand command;
        command.setUid("down");
        command.setReciever("you");
        command.setNeedAnswer(true);
        worker.doStop();
        worker.sendCommand(command);
        worker.loadObject("x");
        worker.publish(named("FS.state"));
        QVERIFY(!SharedObjectsStorage().containsCmd("down"));
        QCOMPARE(log.lines().size(), 0);

        TrelanObject traced = named("fs.state");
        traced.setContent({{"free", 17}});
        worker.publish(traced);
        QCOMPARE(log.lines().size(), 1);
        const LogCapture::Line line = log.lines().first();
        QVERIFY(line.level == QtWarningMsg && line.text.contains(QRegularExpression("free.*17")));
        QCOMPARE(line.category + ' ' + line.file + ' ' + QString::number(line.number),
                 "default trelan/trelanlib/src/trelanqueryworker 34");
        QCOMPARE(line.function, "void bus::TrelanQueryWorker::publish(bus::TrelanObject)");
    }

    void outlivesItsThread()
    {
        const Server server(serveQueries);
        TrelanQueryHandler::setQueryPort(server.port());
        auto worker = std::make_unique<TrelanQueryWorker>("me", QStringList());
        auto thread = std::make_unique<QThread>();
        worker->moveToThread(thread.get());
        thread->start();
        const auto start = [&] { return worker->doStart(); };
        QMetaObject::invokeMethod(worker.get(), start, Qt::BlockingQueuedConnection);
        QCOMPARE(operations(server), "handshake");
        thread->quit();
        thread->wait();
        thread.reset();
        worker->publish(named("x"));
        worker->restart();
        worker.reset();
        QCOMPARE(operations(server), "handshake");
    }

    void stopIsQuick_data()
    {
        // The bus answers this many requests, and then no more.
        const TestTable<int, QByteArray> row("answers", "delivery");
        row("connecting", -1, "");
        row("handshake unanswered", 0, "");
        row("requests are waiting", 3, "");
        row("half a delivery", 3, "[-REQUEST-]\r\n1000000\r\nabc");
    }

    void stopIsQuick()
    {
        QFETCH(int, answers);
        QFETCH(QByteArray, delivery);
        const Server server([&](ScriptedPeer &peer) {
            for (int i = 0; i < answers && peer.readFrame(); ++i)
                peer.send(Server::reply(peer.frame.operation.toUtf8()));
            peer.readFrame();
            peer.awaitEnd();
        });
        const Server deliverer([&](ScriptedPeer &peer) {
            peer.readFrame();
            peer.send(Server::reply("handshake") + push("1", "before") + delivery);
            peer.awaitEnd();
        });
        // One connection fills the queue of the listener: the next ones are neither accepted nor
        // refused.
        QTcpSocket blocker;
        blocker.bind(QHostAddress(QHostAddress::LocalHost));
        QVERIFY(::listen(int(blocker.socketDescriptor()), 0) == 0);
        RawPeer first;
        QVERIFY(first.connectTo(blocker.localPort()));
        const quint16 full = blocker.localPort();
        const QByteArray connecting = ':' + QByteArray::number(full, 16).toUpper() + " 02";

        Controller controller("me");
        const auto started = [&] {
            return answers < 0 ? testData("/proc/net/tcp").count(connecting) == 2
                               : server.frames().size() > answers && !controller.seen.isEmpty();
        };
        controller.setBus(HOST, answers < 0 ? full : deliverer.port(),
                          answers < 0 ? full : server.port());
        for (int i = 0; i < 100; ++i)
            emit controller.publish(named("x"));
        QTRY_VERIFY(started());
        QElapsedTimer timer;
        timer.start();
        controller.stop();
        QVERIFY2(timer.elapsed() < 1500, qPrintable(QString::number(timer.elapsed())));
    }

    /// Every client loses its first connection at once, and its second one in the way that its name
    /// tells. The third connection stays.
    void comesBack()
    {
        const QStringList names {"filter", "plain", "refused"};
        QMutex mutex;
        QMap<QString, QStringList> queries;
        QMap<QString, int> handshakes;
        const Server deliverer([&](ScriptedPeer &peer) {
            if (peer.number < names.size())
                return peer.close(true);
            peer.readFrame();
            const QString name = peer.frame.data.value("name").toString();
            mutex.lock();
            const bool again = handshakes[name]++ > 0;
            mutex.unlock();
            peer.send(Server::reply("handshake", name == "refused" && !again ? 1 : 0));
            if (!again && name == "refused")
                return;
            peer.send(push("1", "m"));
            // The connection ends when the first delivery is acknowledged.
            if (!again)
                peer.readFrame();
            else if (peer.send(push("2", "n")))
                peer.awaitEnd();
        });
        const Server server([&](ScriptedPeer &peer) {
            if (peer.number < names.size())
                return peer.close(true);
            QString name;
            while (peer.readFrame()) {
                const QMutexLocker lock(&mutex);
                name = peer.frame.data.value("name", name).toString();
                QStringList &asked = queries[name];
                asked << text(peer.frame);
                if (asked.last() == "subc")
                    return;
                const bool refused = asked.size() == 3 && name == "refused";
                peer.send(Server::reply(peer.frame.operation.toUtf8(), refused ? 3 : 0));
            }
        });
        QElapsedTimer timer;
        timer.start();
        std::vector<std::unique_ptr<Controller>> clients;
        for (const QString &name : names) {
            clients.push_back(std::make_unique<Controller>(name));
            clients.back()->options.setFlag(TrelanMsgWorker::KeepFilter, name == "filter");
            clients.back()->setBus(HOST, deliverer.port(), server.port());
        }
        const auto queriesOf = [&](const QString &name) {
            const QMutexLocker lock(&mutex);
            return queries.value(name).join(' ');
        };
        const QString once = "handshake suba.* subb.*";
        QTRY_COMPARE_WITH_TIMEOUT(queriesOf("plain"), once, 15000);
        emit clients[1]->subscribe(QString("c"));
        QTRY_COMPARE_WITH_TIMEOUT(queriesOf("plain"), once + " subc " + once, 15000);
        QTRY_COMPARE_WITH_TIMEOUT(queriesOf("refused"), once + " unsuba.*::b.* " + once, 15000);
        QCOMPARE(queriesOf("filter"), once);
        for (const auto &client : clients) {
            const QString seen = client->clientName() == "plain" ? "m m n" : "m n";
            QTRY_COMPARE_WITH_TIMEOUT(client->seen.join(' '), seen, 15000);
        }
        QVERIFY(transport::PROMPT || timer.elapsed() > 9500); // two intervals of 5 s have passed
    }

    void swappedPortsAreNamed()
    {
        const LogCapture log;
        TestBus bus;
        Controller controller("me");
        controller.setBus(HOST, bus.queryPort(), bus.msgPort());
        QTRY_VERIFY(
            log.texts().contains(QString("warning: Port %1 seems to be that of the message channel")
                                     .arg(bus.msgPort())));
    }

    void valuesOfNowAfterEveryConnection()
    {
        const TrelanTransport::Mode before = TrelanTransport::mode();
        TrelanTransport::setMode(TrelanTransport::Prompt);
        TestBus bus;
        RawPeer writer(bus, "writer");
        QCOMPARE(writer.ask("pub {'nm':'a.b','opt':2}"), "0 ");
        Controller controller("me");
        controller.queryOptions = TrelanQueryWorker::SubscribeNow;
        controller.setBus(HOST, bus.msgPort(), bus.queryPort());
        QTRY_COMPARE(controller.seen.join(' '), "a.b");
        const RawPeer thief(bus, "me"); // takes the name; the worker takes it back
        QTRY_COMPARE(controller.seen.join(' '), "a.b a.b");
        QCOMPARE(writer.ask("pub {'nm':'b.c','opt':2}"), "0 ");
        QTRY_COMPARE(controller.seen.join(' '), "a.b a.b b.c");
        TrelanTransport::setMode(before);
    }

    void endsUnderTraffic()
    {
        TestBus bus;
        const Server server(pushForever);
        const LogCapture log;
        for (int i = 0; i < (SOAK ? 1000 : 20); ++i) {
            Controller controller("me");
            controller.setBus(HOST, server.port(), bus.queryPort());
            for (int object = 0; object < 50; ++object)
                emit controller.publish(named("a.b"));
            if (i % 4 > 0)
                QTRY_VERIFY(i % 4 == 1 ? controller.started > 0 : !controller.seen.isEmpty());
            if (i % 4 == 3)
                controller.setBus(HOST, server.port(), bus.queryPort());
        }
        // The library may report a request without an answer. Qt has no reason to report anything.
        for (const LogCapture::Line &line : log.lines())
            QVERIFY2(line.file.contains("trelan/"), qPrintable(line.text));
    }

    void exits_data()
    {
        const TestTable<QString> row("where");
        for (const QString where : {"main", "return", "slot", "worker", "noapp"}) {
            row(qPrintable(where), where);
#ifdef __SANITIZE_THREAD__
            // main() still runs its event loop while a worker's exit() destroys static objects. The
            // sanitizer reports that rightly, and no library could prevent it.
            if (where == QLatin1String("worker"))
                continue;
#endif
            row(qPrintable(where + " static"), where + " static");
        }
        for (const QString where : {"client", "client exit", "client connected exit",
                                    "client connected", "noapp client exit", "client thread"})
            row(qPrintable(where), where);
        row("workers that wait for each other", "main together");
        row("two workers", "two workers");
        row("two workers without main", "noapp two workers static");
#ifndef __SANITIZE_THREAD__
        row("three workers", "three workers static");
        row("two workers and main", "return two workers static");
#endif
    }

    void exits()
    {
        QFETCH(QString, where);
        TestBus bus;
        const Server server(pushForever);
        std::list<QProcess> probes;
        // The library reports a request without an answer, and nothing else may be printed. Logging
        // rules cannot suppress that line: they are static, and destroyed by then.
        const QRegularExpression left("Socket wait for ready read error\n");
        for (int i = 0; i < (SOAK ? 20 : 2); ++i) {
            QProcess &probe = probes.emplace_back();
            probe.setProcessChannelMode(QProcess::MergedChannels);
            const quint16 messages = where.contains("client") ? bus.msgPort() : server.port();
            probe.start(EXIT_PROBE,
                        {where, QString::number(messages), QString::number(bus.queryPort())});
            if (i % 4 == 1) {
                for (QProcess &running : probes)
                    QVERIFY(running.state() == QProcess::NotRunning || running.waitForFinished());
            }
        }
        for (QProcess &probe : probes) {
            QVERIFY(probe.state() == QProcess::NotRunning || probe.waitForFinished());
            QCOMPARE(QString(probe.readAll()).remove(left), QString());
            QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
            QCOMPARE(probe.exitCode(), 7);
        }
    }
};

QTEST_GUILESS_MAIN(tst_TrelanWorkers)
#include "tst_trelanworkers.moc"
