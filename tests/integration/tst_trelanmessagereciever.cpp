#include <logcapture.h>
#include <scriptedserver.h>
#include <trelanmessagereciever.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QRegularExpression>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <memory>

using namespace bus;
using R = TrelanMessageReciever;
using Server = ScriptedServer;

namespace
{

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

QString json(const QVariantMap &map)
{
    return QString::fromUtf8(QJsonDocument::fromVariant(map).toJson(QJsonDocument::Compact));
}

/// A message as the bus pushes it, written with single quotes.
QByteArray push(QString text, const QString &uid = "u"_s,
                const QString &operation = "sendMessage"_s, int size = 0)
{
    text.replace("'"_s, "\""_s);
    const QVariantMap data {{"s"_s, "al"_s}, {"r"_s, "me"_s}, {"uid"_s, uid},
                            {"ops"_s, 4},    {"dt"_s, "5"_s}, {"msg"_s, text}};
    const QString envelope = json({{"operation"_s, operation}, {"data"_s, data}});
    return Server::frame("[-REQUEST-]", Server::payload(envelope.toUtf8()).leftJustified(size));
}

QString acknowledged(const QString &uid)
{
    return R"(|sendMessage{"reciever":"me","sender":"al","uid":"%1"}{"code":0,"description":""})"_s
        .arg(uid);
}

const QByteArray HELLO = Server::reply("handshake");
const QByteArray REFUSAL = Server::reply("handshake", 3, "Unregisterd client");
const QByteArray CUT = "[-REQUEST-]\r\n250000\r\nabc";
// It is seen in the log, so that what came before it has been dealt with.
const QByteArray END = Server::reply("x", 9, "end");
const QString ENDED = "|critical: 9\tend"_s;

} // namespace

class tst_TrelanMessageReciever : public QObject
{
    Q_OBJECT

    std::unique_ptr<LogCapture> _log;
    std::unique_ptr<Server> _server;
    QPointer<R> _reciever;
    QString _events; // each after a "|", as in the other summaries

    QTcpSocket *socket() const { return _reciever->findChild<QTcpSocket *>(); }

    bool openOn(const Server::Script &script)
    {
        _server = std::make_unique<Server>(script);
        R::setMsgPort(_server->port());
        return _reciever->open();
    }

    /// Sends these pieces, one for each release, when it has got the handshake.
    bool openOn(const QByteArrayList &pieces)
    {
        return openOn([pieces](ScriptedPeer &peer) {
            bool ok = peer.readFrame() && peer.send(pieces.first());
            for (const QByteArray &piece : pieces.mid(1))
                ok = ok && peer.awaitRelease() && peer.send(piece);
            while (ok && peer.readFrame()) {}
        });
    }

    QString log() const
    {
        static const QRegularExpression NOW("QDateTime\\(\\d{4}-[^()]*\\)$"_s);
        QStringList lines = _log->texts().replaceInStrings(NOW, "<now>"_s);
        return lines.isEmpty() ? QString() : "|"_s + lines.join("|"_s);
    }

    QString replies() const
    {
        QString text;
        for (const ScriptedFrame &frame : _server->frames().mid(1))
            text += "|"_s + frame.operation + json(frame.data) + json(frame.result);
        return text;
    }

public Q_SLOTS: // not tests
    void deleteReciever() { delete _reciever; }
    void release() { _server->release(); }

private Q_SLOTS:
    void init()
    {
        _log = std::make_unique<LogCapture>();
        _events.clear();
        _reciever = new R("me"_s);
        const auto on = [this](auto signal, const auto &describe) {
            connect(_reciever, signal, this, [=](const auto &...value) {
                _events += "|"_s + QStringList(describe(value...)).join(" "_s);
            });
        };
        const auto ms = [](const auto &v) { return QString::number(v.dt().toMSecsSinceEpoch()); };
        on(&R::incomingMessage, [=](const TrelanMessage &m) {
            return QStringList {"message"_s, m.sender(), m.reciever(), m.uid(), ms(m), m.message()};
        });
        on(&R::incomingObject, [=](const TrelanObject &o) {
            return QStringList {o.name(), o.publisher(), o.uid(), ms(o), json(o.content())};
        });
        on(&R::incomingCommand, [=](const TrelanCommand &c) {
            return QStringList {
                "command"_s,     c.name(),      c.sender(), c.reciever(),
                c.uid(),         c.parentUid(), ms(c),      c.needAnswer() ? "needs"_s : ""_s,
                json(c.params())};
        });
        on(&R::busDisconnected, [] { return QStringList {"lost"_s}; });
        on(&R::kelbusConnected, [] { return QStringList {"connected"_s}; });
        on(&R::handshakeRefused, [] { return QStringList {"refused"_s}; });
    }

    void cleanup()
    {
        delete _reciever;
        _server.reset();
        const QList<LogCapture::Line> lines = _log->lines();
        _log.reset();
        // Whatever else there is in the log is Qt complaining of how its sockets are used.
        for (const LogCapture::Line &line : lines)
            QCOMPARE(line.file, "trelan/trelanlib/src/trelanmessagereciever.cpp"_s);
    }

    void frames_data();
    void frames();

    void attempts_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("attempts");
        QTest::newRow("complete") << END << 1;
        for (const int size : {99, 100, 250}) {
            const QByteArray number = QByteArray::number(size);
            QTest::newRow(number) << "[-REQUEST-]\r\n" + number + "\r\nabc" << size / 100 + 1;
        }
    }
    void attempts()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, attempts);
        QSignalSpy timeouts(socket(), SIGNAL(error(QAbstractSocket::SocketError)));
        QVERIFY(openOn({bytes, "rest\r\n" + END}));
        QElapsedTimer timer;
        timer.start();
        const QString first = bytes == END ? ENDED : "|warning: Invalid request data"_s;
        QTRY_COMPARE(log(), first);
        QCOMPARE(timeouts.count(), attempts);       // each one ends with a wait, the last one too
        QVERIFY(timer.elapsed() >= attempts * 108); // and there is a pause before that
        _server->release();
        QTRY_COMPARE(log(), first + "|critical: Unknown request header: rest"_s + ENDED);
    }

    void remembersAHundredFirstInFirstOut()
    {
        QByteArray bytes;
        QString emitted = "|connected"_s, acknowledgements;
        const auto deliver = [&](int number, bool isNew) {
            const QString uid = QString::number(number);
            bytes += push("m"_s, uid, "sendMessage"_s, 400);
            acknowledgements += acknowledged(uid);
            emitted += isNew ? "|message al me %1 5 m"_s.arg(uid) : QString();
        };
        for (int i = 0; i < 100; ++i)
            deliver(i, true);
        deliver(0, false); // which does not make it a later one
        deliver(100, true);
        deliver(0, true);
        deliver(2, false);
        deliver(1, true);
        // The size of a frame, so that none has to wait in vain for more.
        socket()->setReadBufferSize(bytes.size() / 105);
        QVERIFY(openOn({bytes}));
        QTRY_COMPARE_WITH_TIMEOUT(_events, emitted, 30000);
        QTRY_COMPARE(replies(), acknowledgements);
        const QString repeated = "|warning: Message repeating: \tal\tme\t%1\t(\"m\")"_s;
        QCOMPARE(log(), repeated.arg(0) + repeated.arg(2));
        _reciever->close();
        QVERIFY(openOn({push("m"_s, "1"_s)})); // the filter outlives a connection
        QTRY_VERIFY(log().endsWith(repeated.arg(1)));
        QCOMPARE(_events, emitted + "|connected"_s);
    }

    void endOfConnection_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("reset");
        QTest::addColumn<QString>("log");
        const QString closed = "|warning: QAbstractSocket::RemoteHostClosedError "
                               "The remote host closed the connection <now>"_s;
        QTest::newRow("in order") << HELLO << false << closed;
        QTest::newRow("reset") << HELLO << true << closed;
        QTest::newRow("in a frame") << CUT << false << closed + "|warning: Invalid request data"_s;
    }
    void endOfConnection()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, reset);
        QFETCH(QString, log);
        const auto script = [=](ScriptedPeer &peer) {
            if (peer.readFrame() && peer.send(bytes) && peer.awaitRelease())
                peer.close(reset);
        };
        connect(socket(), SIGNAL(error(QAbstractSocket::SocketError)), this, SLOT(release()));
        QVERIFY(openOn(script));
        QTRY_COMPARE(this->log(), log);
        QCOMPARE(_events, "|connected|lost"_s);
        QVERIFY(!_reciever->isOpen());
        bool written = true;
        QVERIFY(QMetaObject::invokeMethod(_reciever, "request", Q_RETURN_ARG(bool, written),
                                          Q_ARG(QString, "x"_s)));
        QVERIFY(!written);
        R::setMsgPort(0);
        QVERIFY(!_reciever->open());
    }

    void lossBeforeTheHandshakeFailsOpen()
    {
        // Else a worker would take it for connected, and never try again.
        static QSemaphore isReset; // the script may still be in it
        connect(socket(), &QTcpSocket::connected, this, [] { isReset.acquire(); });
        QVERIFY(!openOn([](ScriptedPeer &peer) {
            peer.close(true);
            isReset.release();
        }));
        QVERIFY(!_events.contains("connected"_s));
    }

    void deletedByASlot_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QByteArray>("signal");
        const QByteArray lost(SIGNAL(busDisconnected()));
        QTest::newRow("message") << push("a"_s) + END
                                 << QByteArray(SIGNAL(incomingMessage(TrelanMessage)));
        QTest::newRow("refused") << REFUSAL << QByteArray(SIGNAL(handshakeRefused()));
        QTest::newRow("lost") << HELLO << lost;
        QTest::newRow("lost in a frame") << CUT << lost;
    }
    void deletedByASlot()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QByteArray, signal);
        const QPointer<QTcpSocket> socket = this->socket();
        connect(_reciever, signal, this, SLOT(deleteReciever()));
        QVERIFY(openOn([=](ScriptedPeer &peer) { peer.readFrame() && peer.send(bytes); }));
        QTRY_VERIFY(!_reciever && !socket);
    }

    void leavesAnEndlessPayloadWhenInterrupted()
    {
        QSemaphore isReading;
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            R reciever("me"_s);
            connect(reciever.findChild<QTcpSocket *>(), &QTcpSocket::errorOccurred,
                    [&] { isReading.release(); }); // a wait has timed out
            if (reciever.open())
                QEventLoop().exec();
        }));
        Server server([](ScriptedPeer &peer) {
            if (peer.readFrame() && peer.send(CUT))
                peer.awaitEnd();
        });
        R::setMsgPort(server.port());
        thread->start();
        isReading.acquire();
        thread->requestInterruption();
        thread->quit();
        QVERIFY(thread->wait(5000)); // of 275 s
    }
};

void tst_TrelanMessageReciever::frames_data()
{
    QTest::addColumn<QByteArrayList>("pieces");
    QTest::addColumn<QString>("events");
    QTest::addColumn<QString>("replies");
    QTest::addColumn<QString>("log");
    const auto row = [](const char *name, const QByteArrayList &pieces, const QString &log,
                        const QString &events = {}, const QString &replies = {}) {
        QTest::newRow(name) << pieces << "|connected"_s + events << replies << log;
    };
    const auto push1 = [&](const QString &text, const QString &event) {
        row(qPrintable(text), {push(text) + END}, ENDED, "|"_s + event, acknowledged("u"_s));
    };
    for (const char *plain : {"hi there", "", "5", "[1]", R"({"__reason__":"sub","__name__":"a"})",
                              R"({"__reason__":"pub","__name__":"a","__context__":{}})"})
        push1(QString::fromLatin1(plain), "message al me u 5 "_s + QString::fromLatin1(plain));
    const QString object = "{'__cmd__':5,'__reason__':'sub','__name__':'%1','__context__':%2}"_s;
    push1(object.arg("a.b"_s, "{'k':1}"_s), R"(a.b al u 5 {"k":1})"_s);
    push1(object.arg("a"_s, "5"_s), "a al u 5 {}"_s);
    push1(object.arg("__bus__.__cmd__.go"_s, "{'k':1}"_s), R"(command go al  u  5  {"k":1})"_s);
    push1(object.arg("__BUS__.__cmd__.go"_s, "{}"_s), "__BUS__.__cmd__.go al u 5 {}"_s);
    push1("{'__cmd__':{'__name__':'go','__params__':{'k':1},'__parent__':'p'}}"_s,
          R"(command go al me u p 5 needs {"k":1})"_s);
    push1("{'__cmd__':{'__name__':'go'}}"_s, "command go al me u  5 needs {}"_s);
    push1("{'__cmd__':5}"_s, "command  al me u  5 needs {}"_s);

    const QByteArray first = push("1"_s, "a"_s), second = push("2"_s, "b"_s);
    const QString event = "|message al me a 5 1"_s;
    row("accepted", {HELLO + END}, ENDED, "|open"_s);
    row("low 16 bits", {Server::reply("handshake", 0x10000) + END}, ENDED, "|open"_s);
    row("no result",
        {Server::frame("[-REPLY-]", Server::payload(R"({"operation":"handshake"})")) + END}, ENDED,
        "|open"_s);
    row("accepted late", {first + HELLO + END}, ENDED, event + "|open"_s, acknowledged("a"_s));
    row("refused late", {first + REFUSAL + END}, "|warning: Incorrect reply data"_s,
        event + "|refused"_s, acknowledged("a"_s));
    row("joined", {first + second + END}, ENDED, event + "|message al me b 5 2"_s,
        acknowledged("a"_s) + acknowledged("b"_s));
    row("payload in two", {first.left(60), first.mid(60) + END}, ENDED, event, acknowledged("a"_s));
    row("blanks", {QByteArray(END).replace("[-REPLY-]", " [-REPLY-] ")}, ENDED);
    row("other case", {push("a"_s, "u"_s, "sendmessage"_s) + END},
        "|warning: Invalid request data"_s + ENDED, {},
        R"(|sendmessage{}{"code":4,"description":"Unsupported request"})"_s);
    row("no number", {"[-REQUEST-]\r\nabc\r\n" + END},
        "|warning: Invalid request size: abc|warning: Invalid request size"_s + ENDED);
    row("negative", {"[-REQUEST-]\r\n-1\r\n" + END}, "|warning: Invalid request size"_s + ENDED);
    row("negative reply", {"[-REPLY-]\r\n-1\r\n" + END},
        "|warning: Incorrect reply data"_s + ENDED);
    row("empty", {Server::frame("[-REQUEST-]", {}) + END},
        "|warning: illegal value\t|warning: Invalid request data"_s + ENDED);
    row("no JSON", {Server::frame("[-REPLY-]", Server::payload("nope")) + END},
        "|warning: illegal value\tnope|warning: Incorrect reply data"_s + ENDED);
    const QString unknown = "|critical: Unknown request header: "_s;
    row("size in two", {"[-REQUEST-]\r\n12", "3\r\nabcdefghijklmnopqrst\r\n" + END},
        "|warning: Socket is empty|warning: Invalid request size"_s + unknown + "12"_s + unknown +
            "3"_s + unknown + "abcdefghijklmno"_s + unknown + "pqrst"_s + ENDED);
}

void tst_TrelanMessageReciever::frames()
{
    QFETCH(QString, log);
    // The next piece is sent when one is there, and before the receiver looks at it.
    socket()->disconnect(SIGNAL(readyRead()), _reciever);
    connect(socket(), SIGNAL(readyRead()), this, SLOT(release()));
    connect(socket(), SIGNAL(readyRead()), _reciever, SLOT(onSocketReadyRead()));
    QVERIFY(openOn(
        *static_cast<QByteArrayList *>(QTest::qData("pieces", qMetaTypeId<QByteArrayList>()))));
    QVERIFY(!_reciever->isOpen() && _events == "|connected"_s);
    QTRY_COMPARE(this->log(), log);
    QTEST(_events + (_reciever->isOpen() ? "|open"_s : QString()), "events");
    QFETCH(QString, replies);
    QTRY_COMPARE(this->replies(), replies);
}

QTEST_GUILESS_MAIN(tst_TrelanMessageReciever)
#include "tst_trelanmessagereciever.moc"
