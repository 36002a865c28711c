#include <logcapture.h>
#include <rawpeer.h>
#include <scriptedserver.h>
#include <trelancontroller.h>
#include <trelanmsgworker.h>
#include <trelanqueryworker.h>

#include <QtCore/QProcess>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <list>
#include <memory>

#include <sys/socket.h>

using namespace bus;
using Server = ScriptedServer;

namespace
{

const QString HOST = "127.0.0.1";
const bool SOAK = qEnvironmentVariableIsSet("TRELAN_SOAK");

class Controller : public TrelanController
{
public:
    QStringList wildcards {"a.*", "b.*"};
    QFlags<TrelanMsgWorker::Option> options;
    int started = 0, stopped = 0;
    QStringList seen; // what the message worker handed on

    explicit Controller(const QString &name)
        : TrelanController(name)
    {
        connect(this, &Controller::unprocessedMessage, this,
                [this](const TrelanMessage &msg) { seen << msg.message(); });
        connect(this, &Controller::unprocessedObject, this,
                [this](const TrelanObject &object) { seen << object.name(); });
        connect(this, &Controller::unprocessedCommand, this,
                [this](const TrelanCommand &command) { seen << command.name(); });
    }

protected:
    bool doStart() override
    {
        return initWorkers(new TrelanMsgWorker(clientName(), options),
                           new TrelanQueryWorker(clientName(), wildcards));
    }
    void prepareQueryWorker(TrelanQueryWorker *worker) override
    {
        connect(this, SIGNAL(sendCommand(TrelanCommand)), worker, SLOT(sendCommand(TrelanCommand)));
    }
    void processStartedWorker() override { ++started; }
    void processStoppedWorker() override { ++stopped; }
};

/// A delivery of a message with this uid.
QByteArray push(const QByteArray &uid, QByteArray text)
{
    text.replace('\'', "\\\"");
    return Server::frame("[-REQUEST-]",
                         Server::payload(R"({"operation":"sendMessage","data":{"s":"bus","r":"me",)"
                                         R"("uid":")" +
                                         uid + R"(","msg":")" + text + "\"}}"));
}

/// Delivers one message after the other, each when the one before is acknowledged.
void pushForever(ScriptedPeer &peer)
{
    QByteArray next = Server::reply("handshake");
    for (int uid = 0; peer.readFrame(); next.clear()) {
        next +=
            push(QByteArray::number(++uid), "{'__reason__':'sub','__name__':'o','__context__':{}}");
        if (!peer.send(next))
            return;
    }
}

/// Accepts whatever it is asked.
void serveQueries(ScriptedPeer &peer)
{
    while (peer.readFrame() && peer.send(Server::reply(peer.frame.operation.toUtf8()))) {}
}

QStringList operations(const Server &server)
{
    QStringList texts;
    for (const ScriptedFrame &frame : server.frames())
        texts << frame.operation + ' ' + frame.data.value("wc", frame.data.value("wcs")).toString();
    return texts;
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
    void everySignalArrivesOnce();
    void everythingThatIsPushedArrives();
    void downChannelDropsButTraces();
    void setBusStopsOrWarns_data();
    void setBusStopsOrWarns();
    void stopIsQuick_data();
    void stopIsQuick();
    void comesBack();
    void endsUnderTraffic();
    void exits_data();
    void exits();
};

void tst_TrelanWorkers::everySignalArrivesOnce()
{
    const Server server(serveQueries);
    Controller controller("me");
    for (int i = 1; i < 4; ++i) {
        controller.setBus(HOST, server.port(), server.port());
        QTRY_COMPARE(controller.started, 2 * i);
        QCOMPARE(controller.stopped, 2 * (i - 1));
    }
    QTRY_COMPARE(operations(server).count("sub b.*"), 3);
    const int before = server.frames().size();
    TrelanMessage message;
    message.setReciever("you");
    TrelanCommand command;
    command.setName("call");
    command.setReciever("you");
    command.setNeedAnswer(true);
    const QSignalSpy loaded(&controller, SIGNAL(objectLoaded(TrelanObject)));

    emit controller.publish(named("x"));
    emit controller.subscribe(QString("c"));
    emit controller.subscribe(QStringList {"d", "e"});
    emit controller.unsubscribe(QString("c"));
    emit controller.unsubscribe(QStringList {"d", "e"});
    emit controller.sendMessage(message);
    emit controller.sendLogMessage(message);
    emit controller.sendCommand(command);
    emit controller.loadObject("x");
    QTRY_COMPARE(loaded.size(), 1);
    QCOMPARE(operations(server).mid(before).join('|'),
             QString("pub |sub c|sub d::e|unsub c|unsub d::e|sendMessage |sendMessage |"
                     "sendMessage |loadObject "));
    const QString uid = server.frames().at(before + 7).data.value("uid").toString();
    QCOMPARE(SharedObjectsStorage().getCmd(uid).first.uid(), uid);
    QCOMPARE(uid.size(), 28);
    controller.stop();
    controller.stop();
    QCOMPARE(controller.stopped, 6);
}

void tst_TrelanWorkers::everythingThatIsPushedArrives()
{
    TestBus bus;
    const Server server([](ScriptedPeer &peer) {
        peer.readFrame();
        peer.send(Server::reply("handshake") + push("1", "hello") +
                  push("2", "{'__reason__':'sub','__name__':'stored','__context__':{}}") +
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

void tst_TrelanWorkers::downChannelDropsButTraces()
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
    QVERIFY(line.level == QtWarningMsg && line.text.contains("free") && line.text.contains("17"));
    QCOMPARE(line.file, QString("trelan/trelanlib/src/trelanqueryworker"));
    QCOMPARE(line.function, QString("void bus::TrelanQueryWorker::publish(bus::TrelanObject)"));
    QCOMPARE(line.category + QString::number(line.number), QString("default34"));
}

void tst_TrelanWorkers::setBusStopsOrWarns_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<bool>("msg");
    QTest::addColumn<bool>("query");
    QTest::newRow("no host") << "" << true << true;
    QTest::newRow("no message port") << HOST << false << true;
    QTest::newRow("no query port") << HOST << true << false;
    QTest::newRow("a name") << "localhost" << true << true;
}

void tst_TrelanWorkers::setBusStopsOrWarns()
{
    QFETCH(QString, host);
    QFETCH(bool, msg);
    QFETCH(bool, query);
    const Server server(serveQueries);
    Controller controller("me");
    controller.setBus(HOST, server.port(), server.port());
    QVERIFY(controller.isStarted());
    QTRY_COMPARE(controller.started, 2);
    const LogCapture log;
    controller.setBus(host, msg ? server.port() : 0, query ? server.port() : 0);
    const bool goesOn = host == "localhost";
    QCOMPARE(controller.isStarted(), goesOn);
    QCOMPARE(log.texts().filter("warning: ").filter("\"localhost\"").size(), int(goesOn));
    QCOMPARE(controller.findChildren<QThread *>().size(), goesOn ? 2 : 0);
}

void tst_TrelanWorkers::stopIsQuick_data()
{
    QTest::addColumn<int>("answers"); // of the bus, to queries; then it is silent
    QTest::addColumn<QByteArray>("delivery");
    QTest::newRow("connecting") << -1 << QByteArray();
    QTest::newRow("handshake unanswered") << 0 << QByteArray();
    QTest::newRow("requests are waiting") << 3 << QByteArray();
    QTest::newRow("half a delivery") << 3 << QByteArray("[-REQUEST-]\r\n1000000\r\nabc");
}

void tst_TrelanWorkers::stopIsQuick()
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
    // One connection waits to be accepted; whoever comes next is neither let in nor refused.
    QTcpSocket blocker;
    blocker.bind(QHostAddress(QHostAddress::LocalHost));
    QVERIFY(::listen(int(blocker.socketDescriptor()), 0) == 0);
    RawPeer first;
    QVERIFY(first.connectTo(blocker.localPort()));
    const quint16 full = blocker.localPort();

    Controller controller("me");
    const auto started = [&] {
        QFile connections("/proc/net/tcp");
        connections.open(QIODevice::ReadOnly);
        const QByteArray port = QByteArray::number(full, 16).toUpper().rightJustified(4, '0');
        return answers < 0 ? connections.readAll().count(":" + port + " 02") == 2
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

/// Every client loses its first connection at once, its second one in a way of its own, and then
/// has one that stays.
void tst_TrelanWorkers::comesBack()
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
        if (again || name != "refused")
            peer.send(push("1", "m"));
        // The acknowledgement of the first delivery comes, but too late for this connection.
        if (!again && name != "refused")
            peer.readFrame();
        else if (again && peer.send(push("2", "n")))
            peer.awaitEnd();
    });
    const Server server([&](ScriptedPeer &peer) {
        if (peer.number < names.size())
            return peer.close(true);
        QString name;
        for (int i = 0; peer.readFrame(); ++i) {
            const QVariantMap data = peer.frame.data;
            const QMutexLocker lock(&mutex);
            name = data.value("name", name).toString();
            QStringList &asked = queries[name];
            asked << peer.frame.operation + data.value("wc", data.value("wcs")).toString();
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
    QTRY_COMPARE_WITH_TIMEOUT(clients[0]->seen, QStringList({"m", "n"}), 15000);
    QTRY_COMPARE_WITH_TIMEOUT(clients[1]->seen, QStringList({"m", "m", "n"}), 15000);
    QTRY_COMPARE_WITH_TIMEOUT(clients[2]->seen, QStringList({"m", "n"}), 15000);
    QVERIFY(timer.elapsed() > 9500); // two intervals
}

void tst_TrelanWorkers::endsUnderTraffic()
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
    // The library may say that a request was left; Qt has nothing to say.
    for (const LogCapture::Line &line : log.lines())
        QVERIFY2(line.file.startsWith("trelan/"), qPrintable(line.text));
}

void tst_TrelanWorkers::exits_data()
{
    QTest::addColumn<QString>("where");
    for (const QString where : {"main", "return", "slot", "worker", "noapp"}) {
        for (const QString &row : {where, where + " static"})
            QTest::newRow(qPrintable(row)) << row;
    }
}

void tst_TrelanWorkers::exits()
{
    QFETCH(QString, where);
    TestBus bus;
    const Server server(pushForever);
    std::list<QProcess> probes;
    for (int i = 0; i < (SOAK ? 20 : 2); ++i) {
        QProcess &probe = probes.emplace_back();
        probe.setProcessChannelMode(QProcess::MergedChannels);
        // The library says that it leaves a request; Qt warns.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("QT_LOGGING_RULES", "default.critical=false");
        probe.setProcessEnvironment(environment);
        probe.start(EXIT_PROBE,
                    {where, QString::number(server.port()), QString::number(bus.queryPort())});
        if (i % 4 == 1) {
            for (QProcess &running : probes)
                QVERIFY(running.state() == QProcess::NotRunning || running.waitForFinished());
        }
    }
    for (QProcess &probe : probes) {
        QCOMPARE(QString(probe.readAll()), QString());
        QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
        QCOMPARE(probe.exitCode(), 7);
    }
}

QTEST_GUILESS_MAIN(tst_TrelanWorkers)
#include "tst_trelanworkers.moc"
