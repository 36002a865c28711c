#include "channel/directsocket.h"
#include "channel/reconnection.h"

#include <logcapture.h>
#include <scriptedserver.h>
#include <testsupport.h>
#include <testtable.h>
#include <trelanmessagereciever.h>
#include <trelanqueryhandler.h>
#include <trelanqueryworker.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <memory>

using namespace bus;
using Server = ScriptedServer;
using Q = TrelanQueryHandler;

namespace
{

const QByteArray HELLO = Server::reply("handshake");

/// Sends byte by byte; the network may join bytes again.
bool sendSlowly(ScriptedPeer &peer, const QByteArray &bytes)
{
    return std::all_of(bytes.begin(), bytes.end(),
                       [&peer](char byte) { return peer.send(QByteArray(1, byte)); });
}

QByteArray push(int uid)
{
    const QByteArray data =
        R"({"operation":"sendMessage","data":{"s":"al","r":"me","msg":"m","uid":")" +
        QByteArray::number(uid) + "\"}}";
    return Server::frame("[-REQUEST-]", Server::payload(data));
}

/// A payload whose size is allowed, but which inflates to 32 times the limit of this test.
QByteArray bomb(const QByteArray &header)
{
    return Server::frame(header, Server::payload(QByteArray(32 << 20, ' ')));
}

TrelanObject named(const QString &name)
{
    TrelanObject object;
    object.setName(name);
    return object;
}

} // namespace

/// The channels without pauses, against a peer that does exactly what a test tells it.
class tst_TrelanPrompt : public QObject
{
    Q_OBJECT

    std::unique_ptr<Server> _server;

    /// For data that a script uses: it may still run while a test, and its variables, end.
    void serve(const Server::Script &script)
    {
        _server = std::make_unique<Server>(script);
        Q::setQueryPort(_server->port());
        TrelanMessageReciever::setMsgPort(_server->port());
    }

private Q_SLOTS:
    void init()
    {
        TrelanTransport::setMode(TrelanTransport::Prompt);
        TrelanTransport::setPatience(30000);
        TrelanTransport::setMaxPayload(100000);
        TrelanTransport::setMaxInflatedSize(1 << 20);
    }

    void queryTakesAnyPieces()
    {
        serve([](ScriptedPeer &peer) {
            while (peer.readFrame() &&
                   sendSlowly(peer, Server::reply(peer.frame.operation.toUtf8(), 0, "",
                                                  R"({"nm":"a","uid":"u"})"))) {}
        });
        TrelanTransport::setCoding(TrelanTransport::Light);
        Q handler("me");
        TrelanObject object;
        QVERIFY(handler.open());
        for (int i = 0; i < 20; ++i)
            QVERIFY(handler.loadObject("a", object) && object.uid() == "u");
        TrelanTransport::setCoding(TrelanTransport::Classic);
        QCOMPARE(_server->frames()[1].json,
                 QByteArray(R"({"data":{"nm":"a"},"operation":"loadObject"})"));
    }

    void queryOutOfStep_data()
    {
        const TestTable<QByteArray, Q::Failure> row("answer", "failure");
        const QByteArray fine = Server::reply("rm");
        row("late", "", Q::Timeout);
        row("half", fine.left(fine.size() / 2), Q::Timeout);
        row("no header", "[-REPLAY-]\r\n" + fine, Q::Framing);
        row("too large", "[-REPLY-]\r\n100001\r\n", Q::Framing);
        row("bomb", bomb("[-REPLY-]"), Q::Framing);
        row("one too many", fine + fine, Q::None);
        row("refused", Server::reply("rm", 2), Q::Refused);
    }

    void queryOutOfStep()
    {
        QFETCH(QByteArray, answer);
        QFETCH(Q::Failure, failure);
        serve([answer](ScriptedPeer &peer) {
            if (peer.readFrame() && peer.send(HELLO) && peer.readFrame() && peer.send(answer) &&
                peer.readFrame())
                peer.send(Server::reply("rm"));
            peer.awaitEnd();
        });
        TrelanTransport::setPatience(failure == Q::Timeout ? 200 : 30000);
        Q handler("me");
        QSignalSpy lost(&handler, &Q::busDisconnected);
        QVERIFY(handler.open());
        QCOMPARE(handler.rmPersistent({"a"}), failure == Q::None);
        QCOMPARE(handler.lastFailure(), failure);
        const bool inStep = failure == Q::Refused;
        QCOMPARE(handler.rmPersistent({"a"}), inStep);
        QCOMPARE(lost.count(), inStep ? 0 : 1);
        QCOMPARE(handler.isOpen(), inStep);
        // A late answer belongs to a connection that is gone.
        TrelanTransport::setPatience(30000);
        QVERIFY(inStep || handler.open());
    }

    void publishesAhead()
    {
        // The server answers when it has got all requests.
        constexpr int COUNT = 40;
        serve([](ScriptedPeer &peer) {
            QByteArray replies;
            peer.readFrame();
            peer.send(HELLO);
            for (int i = 0; i < COUNT && peer.readFrame(); ++i)
                replies += Server::reply("pub", i == 7 ? 2 : 0, i == 7 ? "seven" : "");
            peer.send(replies);
            while (peer.readFrame() && peer.send(Server::reply("pub"))) {}
        });
        QList<TrelanObject> objects;
        for (int i = 0; i < COUNT; ++i)
            objects << named("same"); // most of them are made within one millisecond
        Q handler("me");
        QVERIFY(handler.open());
        QVERIFY(!handler.publish(objects));
        QCOMPARE(handler.lastError().description(), "seven");
        QVERIFY(handler.publish(QList<TrelanObject>(objects + objects + objects)));
        TrelanCommand command;
        command.setName("go");
        for (int i = 0; i < COUNT; ++i)
            QVERIFY(handler.sendCommand(command));
        QSet<QString> uids;
        for (const ScriptedFrame &frame : _server->frames().mid(1))
            uids << frame.data["uid"].toString();
        QCOMPARE(uids.size(), 5 * COUNT);
    }

    void workerGoesAhead()
    {
        // The server answers four of five requests, all at once, and closes the connection. The
        // outcomes come in order, and the fifth request is lost.
        serve([](ScriptedPeer &peer) {
            bool more = peer.readFrame() && peer.send(HELLO);
            for (int i = 0; i < 5 && more && peer.number == 0; ++i)
                more = peer.readFrame();
            if (more && peer.number == 0) {
                peer.send(Server::reply("pub") + Server::reply("sub", 2, "no") +
                          Server::reply("loadObject", 0, "", R"({"nm":"a"})") +
                          Server::reply("sendMessage", 2, "nobody"));
            } else {
                peer.awaitEnd();
            }
        });
        TrelanQueryWorker worker("me", {});
        QStringList done;
        const auto note = [&done](const TrelanObject &object) { done << object.name(); };
        connect(&worker, &TrelanQueryWorker::objectLoaded, this, note);
        connect(&worker, &TrelanQueryWorker::workerConnected, this, [&done] { done << "open"; });
        const LogCapture log;
        QVERIFY(worker.doStart());
        const auto ask = [&worker](auto &&what) {
            QMetaObject::invokeMethod(&worker, what, Qt::QueuedConnection);
        };
        ask([&worker] { worker.publish(named("a")); });
        ask([&worker] { worker.subscribe(QString("a")); });
        ask([&worker] { worker.loadObject("a"); });
        ask([&worker] { worker.sendMessage(TrelanMessage()); });
        ask([&worker] { worker.loadObject("b"); });
        QTRY_COMPARE(done, QStringList({"open", "a", "open"}));
        QCOMPARE(log.texts().filter("critical").join('|'),
                 QString("critical: 2\tno|critical: 2\tnobody"));
        QCOMPARE(_server->frames().size(), 1 + 5 + 1);
    }

    void brokenOffAhead()
    {
        // After bytes that are no reply, later replies answer no request, not even the next one.
        serve([](ScriptedPeer &peer) {
            if (peer.readFrame() && peer.send(HELLO) && peer.readFrame() && peer.readFrame())
                peer.send(push(1) + Server::reply("pub", 2, "one") + Server::reply("pub"));
            peer.awaitEnd();
        });
        Q handler("me");
        const LogCapture log;
        QVERIFY(handler.open() && !handler.publish({named("a"), named("b")}));
        QCOMPARE(handler.lastFailure(), Q::NotOpen);
        QCOMPARE(log.faults().size(), 1);
    }

    void reopenedWhileAsking()
    {
        // No slot should open the handler here; but then no request may look successful.
        serve([](ScriptedPeer &peer) {
            for (int i = 0; peer.readFrame() && i < (peer.number == 0 ? 5 : 1); ++i) {
                if (i == 0)
                    peer.send(HELLO);
            }
            if (peer.number > 0)
                peer.awaitEnd();
        });
        Q handler("me");
        QSignalSpy lost(&handler, &Q::busDisconnected);
        connect(&handler, &Q::busDisconnected, this, [&handler] { handler.open(); });
        QVERIFY(handler.open());
        QVERIFY(!handler.publish(QList<TrelanObject>(QVector<TrelanObject>(10).toList())));
        QCOMPARE(handler.lastFailure(), Q::NotOpen);
        QCOMPARE(lost.count(), 1);
        QVERIFY(handler.isOpen());
    }

    void deliveries()
    {
        // Deliveries come in pieces of every size, several at once, and before the handshake is
        // answered. One is a repetition, and one is dropped since it inflates too far.
        QByteArray stream = push(0) + HELLO + bomb("[-REQUEST-]");
        for (int uid = 1; uid < 50; ++uid)
            stream += push(uid) + (uid % 10 == 0 ? push(uid) : QByteArray());
        serve([stream](ScriptedPeer &peer) {
            peer.readFrame();
            for (int at = 0, size = 1; at < stream.size(); at += size++)
                peer.send(stream.mid(at, size));
            while (peer.readFrame()) {}
        });
        TrelanMessageReciever reciever("me");
        QStringList uids, expected;
        for (int uid = 0; uid < 50; ++uid)
            expected << QString::number(uid);
        connect(&reciever, &TrelanMessageReciever::incomingMessage, this,
                [&uids](const TrelanMessage &msg) { uids << msg.uid(); });
        TrelanTransport::setCoding(TrelanTransport::Light);
        QVERIFY(reciever.open());
        TrelanTransport::setCoding(TrelanTransport::Classic); // counts from the next connection on
        QTRY_COMPARE(uids, expected);
        QTRY_COMPARE(_server->frames().size(), 1 + 50 + 4);
        QCOMPARE(_server->frames()[0].data, QVariantMap({{"name", "me"}, {"prompt", true}}));
        QCOMPARE(_server->frames()[1].data["uid"], QVariant("0"));
        QVERIFY(!_server->frames()[1].json.contains(' '));
        QVERIFY(reciever.isOpen());
    }

    void saysThatItIsTransient()
    {
        serve([](ScriptedPeer &peer) { peer.readFrame(); });
        TrelanMessageReciever reciever("a");
        reciever.setTransient(true);
        QVERIFY(reciever.open());
        QTRY_COMPARE(_server->frames().size(), 1);
        const QByteArray golden = testData("frames/handshake-transient.bin").split('\n').last();
        QCOMPARE(_server->frames()[0].json, qUncompress(QByteArray::fromBase64(golden)));
    }

    void deliveriesAreReadAsMaps()
    {
        const QByteArrayList data {
            "{'dt':'170','msg':'\\'b\\'\\n\\u00e4','ops':6,'r':'me','s':'al','uid':'u'}",
            "{'uid':'u','s':'','r':'me','ops':-1,'msg':'','dt':'-1500'}",
            "{'dt':'12 ','msg':'m','ops':0,'r':'me','s':'al','uid':'u'}",
            "{'dt':'99999999999999999999','msg':'m','ops':0,'r':'me','s':'al','uid':'u'}",
            "{'dt':12,'msg':'m','ops':1e0,'r':'me','s':'al','uid':'u'}",
            "{'dt':'12','msg':'m','ops':4294967297,'r':'me','s':'al','uid':'u'}",
            "{'dt':'12','msg':'m','ops':1.5,'r':'me','s':'al','uid':'u'}",
            "{'dt':'12','msg':'m','ops':0,'r':'me','s':'al','s':'bo','uid':'u'}",
            "{'dt':'12','msg':'m','ops':0,'r':'me','s':'al','uid':'u','more':{}}",
            "{'dt':'12','msg':'\xef\xbb\xbfm','ops':0,'r':'me','s':'al','uid':'u'}",
            "{'dt':'12','msg':'\\ud800','ops':0,'r':'me','s':'al','uid':'u'}",
            "{'dt':'12','msg':'m','ops':0,'r':'me','s':'al','uid':77}",
        };
        QByteArray stream = HELLO;
        QList<TrelanMessage> expected;
        for (int i = 0; i < data.size(); ++i) {
            QByteArray json = "{\"operation\":\"sendMessage\",\"data\":" + data[i] + "}";
            json.replace('\'', '"').replace("\"u\"", '"' + QByteArray::number(i) + '"');
            stream += Server::frame("[-REQUEST-]", Server::payload(json));
            const QJsonObject envelope = QJsonDocument::fromJson(json).object();
            expected << TrelanMessage::fromVariantMap(envelope["data"].toVariant().toMap());
        }
        serve([stream](ScriptedPeer &peer) {
            peer.readFrame();
            peer.send(stream);
            peer.awaitEnd();
        });
        TrelanMessageReciever reciever("me");
        QList<TrelanMessage> messages;
        connect(&reciever, &TrelanMessageReciever::incomingMessage, this,
                [&messages](const TrelanMessage &msg) { messages << msg; });
        QVERIFY(reciever.open());
        QTRY_COMPARE(messages.size(), expected.size());
        QCOMPARE(messages, expected);
    }

    void acknowledgedWhileASlotBlocks()
    {
        QSemaphore acknowledged;
        serve([&acknowledged](ScriptedPeer &peer) {
            if (peer.readFrame() && peer.send(HELLO + push(1)) && peer.readFrame())
                acknowledged.release();
        });
        TrelanMessageReciever reciever("me");
        QList<bool> results;
        connect(&reciever, &TrelanMessageReciever::incomingMessage, this,
                [&](const TrelanMessage &) { results << acknowledged.tryAcquire(1, 30000); });
        QVERIFY(reciever.open());
        QTRY_COMPARE(results, QList<bool>({true}));
        _server.reset(); // its script uses variables of this function
    }

    void acknowledgedTogether()
    {
        // The slot for the second of three messages runs an event loop. The receiver acknowledges
        // the messages that it has read, and reads only one more piece until the slot returns.
        const QByteArray much = Server::reply("none").repeated(3000);
        serve([much](ScriptedPeer &peer) {
            peer.readFrame();
            if (peer.send(HELLO + push(1) + push(2) + push(3)) && peer.readFrame() &&
                peer.readFrame() && peer.send(much) && peer.send(push(4)))
                peer.awaitEnd();
        });
        TrelanMessageReciever reciever("me");
        const auto *socket = reciever.findChild<QTcpSocket *>();
        QStringList uids;
        qint64 held = 0;
        int wakeUps = 0;
        connect(&reciever, &TrelanMessageReciever::incomingMessage, this, [&](TrelanMessage msg) {
            uids << msg.uid();
            if (msg.uid() != "2")
                return;
            QTRY_VERIFY(socket->bytesAvailable() >= 64 * 1024);
            const auto *events = QAbstractEventDispatcher::instance();
            connect(events, &QAbstractEventDispatcher::awake, &reciever, [&] { ++wakeUps; });
            QTest::qWait(50);
            held = socket->bytesAvailable();
            disconnect(events, nullptr, &reciever, nullptr);
        });
        QVERIFY(reciever.open());
        QTRY_COMPARE(uids, QStringList({"1", "2", "3", "4"}));
        QCOMPARE(held, 64 * 1024);
        QVERIFY2(wakeUps < 50, qPrintable(QString::number(wakeUps)));
    }

    void deliveriesOutOfStep_data()
    {
        const TestTable<QByteArray, QString> row("stream", "reason");
        row("stalls", HELLO + push(1) + push(2).left(60), "the rest of a frame does not come");
        row("no header", HELLO + "hello\r\n", "\"hello\"");
        row("too large", HELLO + "[-REQUEST-]\r\n100001\r\n", "100001");
        row("no answer", push(1), "the handshake is not answered");
        row("refused", Server::reply("handshake", 3), "");
    }

    void deliveriesOutOfStep()
    {
        QFETCH(QByteArray, stream);
        QFETCH(QString, reason);
        serve([stream](ScriptedPeer &peer) {
            peer.readFrame();
            peer.send(stream);
            peer.awaitEnd();
        });
        TrelanTransport::setPatience(stream.contains("\r\n1000") ? 30000 : 300);
        const LogCapture log;
        TrelanMessageReciever reciever("me");
        QSignalSpy lost(&reciever, &TrelanMessageReciever::busDisconnected);
        QSignalSpy refused(&reciever, &TrelanMessageReciever::handshakeRefused);
        QVERIFY(reciever.open());
        QTRY_COMPARE(lost.count() + refused.count(), 1);
        QVERIFY(!reciever.isOpen());
        const QString warning = log.faults().join('\n');
        QVERIFY2(warning.contains(reason) && !warning.contains('\n'), qPrintable(warning));
    }

    void reopenedWhenBrokenOff_data()
    {
        const TestTable<QByteArray> row("stream");
        row("out of step", HELLO + "hello\r\n");
        row("lost meanwhile", HELLO + push(1) + "hello\r\n");
    }

    void reopenedWhenBrokenOff()
    {
        QFETCH(QByteArray, stream);
        static QSemaphore _isReset; // outlives the script, which may still use it
        serve([stream](ScriptedPeer &peer) {
            if (peer.readFrame() && peer.send(peer.number > 0 ? HELLO + push(2) : stream) &&
                peer.awaitRelease()) {
                peer.close(true);
                _isReset.release();
            }
        });
        TrelanMessageReciever reciever("me");
        QSignalSpy lost(&reciever, &TrelanMessageReciever::busDisconnected);
        QStringList uids;
        connect(&reciever, &TrelanMessageReciever::incomingMessage, this, [&](TrelanMessage msg) {
            uids += msg.uid();
            if (msg.uid() == "1") {
                _server->release();
                _isReset.acquire();
            }
        });
        connect(&reciever, &TrelanMessageReciever::busDisconnected, this, [&] {
            QVERIFY(reciever.open());
            const auto *socket = reciever.findChild<QTcpSocket *>();
            QTRY_VERIFY(socket->bytesAvailable() > 0); // the server sends no more
        });
        QVERIFY(reciever.open());
        QTRY_VERIFY(reciever.isOpen() && uids.endsWith("2"));
        QCOMPARE(lost.count(), 1);
    }

    void aNewConnectionHasItsOwnTime_data()
    {
        const TestTable<bool> row("isBrokenOff");
        row("broken off", true);
        row("opened again in the other mode", false);
    }

    void aNewConnectionHasItsOwnTime()
    {
        QFETCH(bool, isBrokenOff);
        serve([](ScriptedPeer &peer) {
            peer.readFrame();
            if (peer.number == 0) {
                peer.send(HELLO.left(20));
            } else if (peer.awaitRelease()) {
                peer.send(HELLO);
                peer.awaitEnd();
            }
        });
        TrelanTransport::setPatience(1000);
        TrelanMessageReciever reciever("me");
        QSignalSpy lost(&reciever, &TrelanMessageReciever::busDisconnected);
        QSignalSpy accepted(&reciever, &TrelanMessageReciever::handshakeAccepted);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(reciever.open());
        if (isBrokenOff)
            QTRY_COMPARE(lost.count(), 1);
        else
            TrelanTransport::setMode(TrelanTransport::Paced);
        TrelanTransport::setPatience(30000);
        QVERIFY(reciever.open());
        QTRY_VERIFY(timer.elapsed() > 1200); // the patience of the first connection is over
        _server->release();
        QTRY_COMPARE(accepted.count(), 1);
        QCOMPARE(lost.count(), int(isBrokenOff));
    }

    void whatIsExpectedOfQt()
    {
        // Both waits go on without the notifiers, but slower, and deaf to the end of the thread.
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        QTcpSocket socket;
        socket.connectToHost(server.serverAddress(), server.serverPort());
        QCOMPARE(socket.state(), QAbstractSocket::ConnectingState);
        QVERIFY(direct::notifierOf(socket, QSocketNotifier::Write));
        QVERIFY(socket.waitForConnected());
        const QSocketNotifier *arrivals = direct::notifierOf(socket, QSocketNotifier::Read);
        QVERIFY(arrivals && arrivals->isEnabled());
        QCOMPARE(qintptr(arrivals->socket()), socket.socketDescriptor());

        socket.write("a"); // is kept by Qt, and what comes next must not overtake it
        direct::send(socket, "bc");
        QVERIFY(server.waitForNewConnection(30000));
        QTcpSocket *peer = server.nextPendingConnection();
        QTRY_COMPARE(peer->peek(9), QByteArray("abc"));
        QVERIFY(peer->write("1") == 1 && peer->flush() && socket.waitForReadyRead());
        QVERIFY(peer->write("2") == 1 && peer->flush());
        QCOMPARE(direct::take(socket), QByteArray()); // "1" is with Qt, and comes first
    }

    void comesBackSlower()
    {
        channelworker::Reconnection reconnection;
        reconnection.begin(TrelanChannelSettings().setMode(TrelanTransport::Prompt));
        QCOMPARE(reconnection.delayAfterFailure(), 0);
        for (const int most : {100, 200, 400, 800, 1600, 3200, 5000, 5000}) {
            const int delay = reconnection.delayAfterLoss(9999); // the connection does not last
            QVERIFY2(delay >= most / 2 && delay <= most, qPrintable(QString::number(delay)));
        }
        QVERIFY(reconnection.isProbablyTaken());
        QCOMPARE(reconnection.delayAfterLoss(10000), 0);
        reconnection.begin(TrelanChannelSettings());
        QCOMPARE(reconnection.delayAfterFailure(), 5000);
    }

    void yieldsToAnotherOfItsName()
    {
        channelworker::Reconnection reconnection;
        reconnection.begin(TrelanChannelSettings().setPauses(50, 400));
        const auto isAbout = [](int delay, int pause) {
            return delay >= pause && delay <= pause + pause / 4;
        };
        QCOMPARE(reconnection.delayAfterLoss(10000), 0);
        QVERIFY(isAbout(reconnection.delayAfterLoss(9999), 5000));
        QVERIFY(!reconnection.isProbablyTaken()); // it may have been the bus, this once
        // The other one had the name for the pause, and a connection has to last longer than that.
        for (const int pause : {10000, 20000, 40000, 60000, 60000})
            QVERIFY(isAbout(reconnection.delayAfterLoss(pause / 2 + 9999), pause));
        QVERIFY(reconnection.isProbablyTaken());

        // A bus that is away has ended the connections itself.
        for (const int most : {50, 100, 200, 400, 400}) {
            const int delay = reconnection.delayAfterFailure();
            QVERIFY2(delay >= most / 2 && delay <= most, qPrintable(QString::number(delay)));
        }
        QVERIFY(!reconnection.isProbablyTaken());
        QVERIFY(isAbout(reconnection.delayAfterLoss(0), 5000));
    }
};

QTEST_GUILESS_MAIN(tst_TrelanPrompt)
#include "tst_trelanprompt.moc"
