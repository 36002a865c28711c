#include <logcapture.h>
#include <scriptedserver.h>
#include <testtable.h>
#include <transport.h>
#include <trelanmessagereciever.h>

#include <QtNetwork/QTcpSocket>

#include <memory>

using namespace bus;
using R = TrelanMessageReciever;
using Server = ScriptedServer;
using transport::PROMPT;

namespace
{

QString json(const QVariantMap &map)
{
    return QJsonDocument::fromVariant(map).toJson(QJsonDocument::Compact);
}

/// A message as the bus pushes it, written with single quotes.
QByteArray push(QString text, const QString &uid = "u", const QString &operation = "sendMessage",
                int size = 0)
{
    const QVariantMap data {{"s", "al"}, {"r", "me"}, {"uid", uid},
                            {"ops", 4},  {"dt", "5"}, {"msg", text.replace('\'', '"')}};
    const QByteArray envelope = json({{"operation", operation}, {"data", data}}).toUtf8();
    return Server::frame("[-REQUEST-]", Server::payload(envelope).leftJustified(size));
}

QString acknowledged(const QString &uid)
{
    const QString data = R"({"reciever":"me","sender":"al","uid":"%1"})";
    return "|sendMessage" + data.arg(uid) + R"({"code":0,"description":""})";
}

const QByteArray HELLO = Server::reply("handshake");
const QByteArray REFUSAL = Server::reply("handshake", 3, "Unregisterd client");
const QByteArray CUT = "[-REQUEST-]\r\n250000\r\nabc";
// Leaves a line in the log: once that is there, the receiver has dealt with all that came before.
const QByteArray END = Server::reply("x", 9, "end");
const QString ENDED = "|critical: 9\tend";

} // namespace

class tst_TrelanMessageReciever : public QObject
{
    Q_OBJECT

    std::unique_ptr<LogCapture> _log;
    std::unique_ptr<Server> _server;
    QPointer<R> _reciever;
    QString _events; // each after a "|"

    QTcpSocket *socket() const { return _reciever->findChild<QTcpSocket *>(); }

    bool openOn(const Server::Script &script)
    {
        _server = std::make_unique<Server>(script);
        R::setMsgPort(_server->port());
        return _reciever->open();
    }

    /// Opens on a server that answers the handshake with the first piece, and sends one more at
    /// each release.
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
        static const QRegularExpression NOW("QDateTime\\(\\d{4}-[^()]*\\)$");
        const QStringList lines = _log->texts().replaceInStrings(NOW, "<now>");
        return (lines.isEmpty() ? "" : "|") + lines.join('|');
    }

    QString replies() const
    {
        QString text;
        for (const ScriptedFrame &frame : _server->frames().mid(1))
            text += "|" + frame.operation + json(frame.data) + json(frame.result);
        return text;
    }

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::SockAct)
            release();
        return QObject::eventFilter(watched, event);
    }

public Q_SLOTS: // not tests
    void deleteReciever() { delete _reciever; }
    void release() { _server->release(); }

private Q_SLOTS:
    void init()
    {
        _log = std::make_unique<LogCapture>();
        _events.clear();
        _reciever = new R("me");
        const auto note = [this](const QStringList &event) { _events += "|" + event.join(' '); };
        const auto ms = [](const auto &v) { return QString::number(v.dt().toMSecsSinceEpoch()); };
        connect(_reciever, &R::incomingMessage, this, [=](const TrelanMessage &m) {
            note({"message", m.sender(), m.reciever(), m.uid(), ms(m), m.message()});
        });
        connect(_reciever, &R::incomingObject, this, [=](const TrelanObject &o) {
            note({o.name(), o.publisher(), o.uid(), ms(o), json(o.content())});
        });
        connect(_reciever, &R::incomingCommand, this, [=](const TrelanCommand &c) {
            note({"command", c.name(), c.sender(), c.reciever(), c.uid(), c.parentUid(), ms(c),
                  c.needAnswer() ? "needs" : "", json(c.params())});
        });
        connect(_reciever, &R::busDisconnected, this, [=] { note({"lost"}); });
        connect(_reciever, &R::kelbusConnected, this, [=] { note({"connected"}); });
        connect(_reciever, &R::handshakeRefused, this, [=] { note({"refused"}); });
    }

    void cleanup()
    {
        delete _reciever;
        _server.reset();
        const auto log = std::exchange(_log, nullptr);
        // A line of another file would be a complaint of Qt about how its sockets are used.
        for (const LogCapture::Line &line : log->lines())
            QCOMPARE(line.file, "trelan/trelanlib/src/trelanmessagereciever.cpp");
    }

    void frames_data()
    {
        const TestTable<QByteArrayList, QString, QString, QString> table("pieces", "log", "events",
                                                                         "replies");
        const auto row = [&](const char *name, const QByteArrayList &pieces, const QString &log,
                             const QString &events = {}, const QString &replies = {}) {
            table(name, pieces, log, "|connected" + events, replies);
        };
        const auto push1 = [&](const QString &text, const QString &event) {
            row(qPrintable(text), {push(text) + END}, ENDED, "|" + event, acknowledged("u"));
        };
        for (const QString plain : {"hi there", "", "[1]", R"({"__reason__":"sub","__name__":"a"})",
                                    R"({"__reason__":"pub","__name__":"a","__context__":{}})"})
            push1(plain, "message al me u 5 " + plain);
        const QString object = "{'__cmd__':5,'__reason__':'sub','__name__':'%1','__context__':%2}";
        push1(object.arg("a.b", "{'k':1}"), R"(a.b al u 5 {"k":1})");
        push1(object.arg("a", "5"), "a al u 5 {}");
        push1(object.arg("__bus__.__cmd__.go", "{'k':1}"), R"(command go al  u  5  {"k":1})");
        push1(object.arg("__BUS__.__cmd__.go", "{}"), "__BUS__.__cmd__.go al u 5 {}");
        push1("{'__cmd__':{'__name__':'go','__params__':{'k':1},'__parent__':'p'}}",
              R"(command go al me u p 5 needs {"k":1})");
        push1("{'__cmd__':5}", "command  al me u  5 needs {}");

        const QByteArray first = push("1", "a");
        const QString event = "|message al me a 5 1", done = acknowledged("a");
        row("low 16 bits", {Server::reply("handshake", 0x10000) + END}, ENDED, "|open");
        const auto hello = [](const QByteArray &code) {
            return Server::frame(
                "[-REPLY-]",
                Server::payload(R"({"operation":"handshake","result":{"code":)" + code + "}}"));
        };
        row("code 0 as a text", {hello(R"("0")") + END}, ENDED, "|open");
        for (const char *code : {R"("3")", "true", "null", R"("none")"})
            row(code, {hello(code) + END}, "|warning: Incorrect reply data", "|refused");
        const QByteArray bare = Server::payload(R"({"operation":"handshake"})");
        row("no result", {Server::frame("[-REPLY-]", bare) + END}, ENDED, "|open");
        row("accepted late", {first + HELLO + END}, ENDED, event + "|open", done);
        const QString invalid = "|warning: Invalid request ",
                      bad = "|warning: Incorrect reply data";
        row("refused late", {first + REFUSAL + END}, bad, event + "|refused", done);
        row("payload in two", {first.left(60), first.mid(60) + END}, ENDED, event, done);
        row("blanks", {QByteArray(END).replace("[-REPLY-]", " [-REPLY-] ")}, ENDED);
        row("other case", {push("a", "u", "sendmessage") + END}, invalid + "data" + ENDED, {},
            R"(|sendmessage{}{"code":4,"description":"Unsupported request"})");
        const QString closed = "|warning: The message channel is closed: ";
        row("no number", {"[-REQUEST-]\r\nabc\r\n" + END},
            PROMPT ? closed + "\"abc\" is no size line"
                   : invalid + "size: abc" + invalid + "size" + ENDED,
            PROMPT ? "|lost" : "");
        row("negative", {"[-REQUEST-]\r\n-1\r\n" + END},
            PROMPT ? closed + "\"-1\" is no size line" : invalid + "size" + ENDED,
            PROMPT ? "|lost" : "");
        row("empty", {Server::frame("[-REQUEST-]", {}) + END},
            "|warning: illegal value\t" + invalid + "data" + ENDED);
        row("no JSON", {Server::frame("[-REPLY-]", Server::payload("nope")) + END},
            "|warning: illegal value\tnope" + bad + ENDED);
        if (PROMPT)
            return; // tst_trelanprompt cuts frames everywhere
        const QString unknown = "|critical: Unknown request header: ";
        row("size in two", {"[-REQUEST-]\r\n12", "3\r\nabcdefghijklmnopqrst\r\n" + END},
            "|warning: Socket is empty" + invalid + "size" + unknown + "12" + unknown + "3" +
                unknown + "abcdefghijklmno" + unknown + "pqrst" + ENDED);
    }
    void frames()
    {
        QFETCH(QByteArrayList, pieces);
        QFETCH(QString, log);
        QFETCH(QString, replies);
        // The server sends the next piece as soon as one has arrived, before the receiver reads it.
        socket()->disconnect(SIGNAL(readyRead()), _reciever);
        connect(socket(), SIGNAL(readyRead()), this, SLOT(release()));
        connect(socket(), SIGNAL(readyRead()), _reciever, SLOT(onSocketReadyRead()));
        QVERIFY(openOn(pieces));
        const auto notifiers = PROMPT // reads before the socket signals it
                                   ? socket()->findChildren<QSocketNotifier *>()
                                   : QList<QSocketNotifier *>();
        for (QSocketNotifier *notifier : notifiers)
            notifier->installEventFilter(this);
        QVERIFY(!_reciever->isOpen() && _events == "|connected");
        QTRY_COMPARE(this->log(), log);
        QTEST(_events + (_reciever->isOpen() ? "|open" : ""), "events");
        QTRY_COMPARE(this->replies(), replies);
    }

    void attempts_data()
    {
        const TestTable<QByteArray, int> row("bytes", "attempts");
        row("complete", END, 1);
        row("below 100 bytes", "[-REQUEST-]\r\n99\r\nabc", 1);
        row("100 bytes", "[-REQUEST-]\r\n100\r\nabc", 2);
    }
    void attempts()
    {
        SKIP_WITHOUT_PAUSES("without pauses there are no attempts to count")
        QFETCH(QByteArray, bytes);
        QFETCH(int, attempts);
        QSignalSpy timeouts(socket(), SIGNAL(error(QAbstractSocket::SocketError)));
        QVERIFY(openOn({bytes, "rest\r\n" + END}));
        QElapsedTimer timer;
        timer.start();
        const QString first = bytes == END ? ENDED : "|warning: Invalid request data";
        QTRY_COMPARE(log(), first);
        QCOMPARE(timeouts.count(), attempts);       // every attempt ends with a wait, even the last
        QVERIFY(timer.elapsed() >= attempts * 108); // a pause of 10 ms comes before each wait
        _server->release();
        QTRY_COMPARE(log(), first + "|critical: Unknown request header: rest" + ENDED);
        timer.start();
        _reciever->close();
        QVERIFY(timer.elapsed() >= 100); // what was written last gets time to leave
    }

    void remembersAHundredFirstInFirstOut()
    {
        QByteArray bytes;
        QString emitted = "|connected", acknowledgements;
        const auto deliver = [&](int number, bool isNew) {
            const QString uid = QString::number(number);
            bytes += push("m", uid, "sendMessage", 400);
            acknowledgements += acknowledged(uid);
            emitted += isNew ? "|message al me " + uid + " 5 m" : "";
        };
        for (int i = 0; i < 100; ++i)
            deliver(i, true);
        deliver(0, false); // a repetition does not make it younger
        deliver(100, true);
        deliver(0, true);
        deliver(2, false);
        deliver(1, true);
        // The socket hands on one frame at a time, so that no read waits 100 ms for more.
        socket()->setReadBufferSize(bytes.size() / 105);
        QVERIFY(openOn({bytes}));
        QTRY_COMPARE_WITH_TIMEOUT(_events, emitted, 30000);
        QTRY_COMPARE(replies(), acknowledgements);
        const QString repeated = "|warning: Message repeating: \tal\tme\t%1\t(\"m\")";
        QCOMPARE(log(), repeated.arg(0) + repeated.arg(2));
        _reciever->close();
        QVERIFY(openOn({push("m", "1")})); // the filter outlives a connection
        QTRY_VERIFY(log().endsWith(repeated.arg(1)));
        QCOMPARE(_events, emitted + "|connected");
    }

    void endOfConnection_data()
    {
        const TestTable<QByteArray, bool, QString> row("bytes", "reset", "after");
        row("reset", HELLO, true, "");
        row("in order, in a frame", CUT, false, "|warning: Invalid request data");
    }
    void endOfConnection()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, reset);
        QFETCH(QString, after);
        connect(socket(), SIGNAL(error(QAbstractSocket::SocketError)), this, SLOT(release()));
        QVERIFY(openOn([=](ScriptedPeer &peer) {
            if (peer.readFrame() && peer.send(bytes) && (PROMPT || peer.awaitRelease()))
                peer.close(reset);
        }));
        QTRY_COMPARE(log(), "|warning: QAbstractSocket::RemoteHostClosedError "
                            "The remote host closed the connection <now>" +
                                (PROMPT ? QString() : after));
        QCOMPARE(_events, "|connected|lost");
        QVERIFY(!_reciever->isOpen());
        bool written = true;
        QVERIFY(QMetaObject::invokeMethod(_reciever, "request", Q_RETURN_ARG(bool, written),
                                          Q_ARG(QString, "x")));
        QVERIFY(!written);
        R::setMsgPort(0);
        QVERIFY(!_reciever->open());
    }

    void lossBeforeTheHandshakeFailsOpen()
    {
        // A worker would take success for a connection, and never try again.
        static QSemaphore _isReset; // outlives the script, which may still use it
        connect(socket(), &QTcpSocket::connected, this, [] { _isReset.acquire(); });
        const bool opened = openOn([](ScriptedPeer &peer) {
            peer.close(true);
            _isReset.release();
        });
        // Without pauses the handshake may leave before the reset arrives; the loss is told later
        // then.
        if (PROMPT && opened) {
            QTRY_COMPARE(_events, "|connected|lost");
            return;
        }
        QVERIFY(!opened);
        QVERIFY(!_events.contains("connected"));
    }

    void reopenedByALoss_data()
    {
        // The connection that is lost sends this; nothing of it may count for the next one.
        const TestTable<QByteArray> row("bytes");
        row("handshake being written", {});
        row("in a frame", CUT);
    }
    void reopenedByALoss()
    {
        QFETCH(QByteArray, bytes);
        static QSemaphore _isReset; // the script may still be in it
        const bool whileWriting = bytes.isEmpty();
        bool isFirst = whileWriting;
        connect(socket(), &QTcpSocket::connected, this, [&] {
            if (!std::exchange(isFirst, false))
                return;
            _server->release(); // a reset before this signal would make Qt connect once more
            _isReset.acquire();
        });
        connect(_reciever, &R::busDisconnected, this, [this] { QVERIFY(_reciever->open()); });
        TrelanTransport::setPatience(300);
        QElapsedTimer timer;
        timer.start();
        const bool opened = openOn([=](ScriptedPeer &peer) {
            if (peer.number == 0) {
                whileWriting ? peer.awaitRelease() : peer.readFrame() && peer.send(bytes);
                peer.close(true);
                _isReset.release();
            } else if (peer.readFrame() && peer.send(HELLO + push("m"))) {
                peer.awaitEnd();
            }
        });
        QVERIFY(opened);
        QTRY_VERIFY(_reciever->isOpen() && _events.contains("|message al me u 5 m"));
        QTRY_VERIFY(timer.elapsed() > 700); // past the time that the handshake may take
        TrelanTransport::setPatience(30000);
        QVERIFY(_reciever->isOpen());
        const int connections = whileWriting && !_events.startsWith("|connected") ? 1 : 2;
        QCOMPARE(_events.count("|connected"), connections);
        QCOMPARE(_events.count("|lost"), 1);
        QVERIFY2(!log().contains("Unknown request header"), qPrintable(log()));
    }

    void deletedByASlot_data()
    {
        const TestTable<QByteArray, QByteArray> row("bytes", "signal");
        row("message", push("a") + END, SIGNAL(incomingMessage(TrelanMessage)));
        row("refused", REFUSAL, SIGNAL(handshakeRefused()));
        row("lost", HELLO, SIGNAL(busDisconnected()));
        row("lost in a frame", CUT, SIGNAL(busDisconnected()));
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

    void deletedByALossWhileItWrites_data()
    {
        // The first write after the reset notices that the connection is lost.
        const TestTable<QByteArray, bool> row("bytes", "hasEvents");
        row("answer", HELLO + push("a") + push("b"), false);
        row("answer in the slot", HELLO + push("a") + push("b"), true);
        row("handshake", {}, false);
    }
    void deletedByALossWhileItWrites()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, hasEvents);
        static QSemaphore _isReset; // outlives the script, which may still use it
        const QPointer<QTcpSocket> socket = this->socket();
        const auto lose = [this, hasEvents] {
            _server->release();
            _isReset.acquire();
            if (hasEvents)
                QCoreApplication::processEvents();
        };
        connect(_reciever, &R::incomingMessage, this, lose);
        if (bytes.isEmpty())
            connect(socket, &QTcpSocket::connected, this, lose);
        connect(_reciever, SIGNAL(busDisconnected()), this, SLOT(deleteReciever()));
        openOn([bytes](ScriptedPeer &peer) {
            if ((bytes.isEmpty() || (peer.readFrame() && peer.send(bytes))) && peer.awaitRelease())
                peer.close(true);
            _isReset.release();
        });
        QTRY_VERIFY(!_reciever && !socket);
    }
};

QTEST_GUILESS_MAIN(tst_TrelanMessageReciever)
#include "tst_trelanmessagereciever.moc"
