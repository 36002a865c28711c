#include <logcapture.h>
#include <rawpeer.h>
#include <testtable.h>
#include <trelanobject.h>

#include <QtCore/QTemporaryDir>

#include <dlfcn.h>
#include <link.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <thread>

using namespace bus;

namespace
{

const QByteArray LOAD = RawPeer::frame("loadObject {'nm':'no.such'}");
const QString CLOSED = "warning: connection from %1 is closed: %2";

bool isServed(RawPeer &peer)
{
    return peer.send(LOAD) && peer.receive() == "2 there is no object \"no.such\"";
}

QByteArray publishNoise(const QString &name, int bytes, int options = TrelanObject::Stored)
{
    return RawPeer::frame("pub", {{"nm", name}, {"opt", options}, {"cnt", noise(bytes)}});
}

std::atomic_int _largeCompressed {0};

} // namespace

extern "C" Q_DECL_EXPORT int deflate(z_streamp stream, int flush)
{
    static const auto _next =
        reinterpret_cast<int (*)(z_streamp, int)>(::dlsym(RTLD_NEXT, "deflate"));
    _largeCompressed += int(stream->avail_in > 1000000);
    return _next(stream, flush);
}

namespace
{

/// For dl_iterate_phdr(): adds up what this project's libraries take of the stack of every thread.
int addThreadLocal(dl_phdr_info *library, size_t /*size*/, void *sum)
{
    if (!QByteArray(library->dlpi_name).contains("libtrelan"))
        return 0;
    for (int i = 0; i < library->dlpi_phnum; ++i) {
        if (library->dlpi_phdr[i].p_type == PT_TLS)
            *static_cast<quint64 *>(sum) += library->dlpi_phdr[i].p_memsz;
    }
    return 0;
}

} // namespace

/// Connections that send anything, nothing or too much, and end at any time.
class tst_TrelanBusConnections : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void anyBytes_data()
    {
        // Status "none" stands for a closed connection, and the text for the warning about it.
        const TestTable<QByteArray, QString, QString> row("bytes", "status", "text");
        row("foreign protocol", "GET / HTTP/1\r\n", "none", "\"GET / HTTP/1\" is no header line");
        row("escape sequence", "\x1b[2J\x9b\r\n", "none",
            "\"\\u001b[2J\\u009b\" is no header line");
        row("word and more", "[-REQUEST-]x\r\n", "none", "\"[-REQUEST-]x\" is no header line");
        row("a reply", "[-REPLY-]\r\n4\r\nAAAA", "none", "sent a reply that nobody asked for");
        row("size no number", "[-REQUEST-]\r\nabc\r\n", "none", "\"abc\" is no size line");
        row("negative size", "[-REQUEST-]\r\n-1\r\n", "none", "\"-1\" is no size line");
        row("empty size", "[-REQUEST-]\r\n\r\n", "none", "\"\" is no size line");
        const char *const noData = "2 payload is no base64 text of compressed data";
        row("blanks around", " [-REQUEST-] \r\n 4\r\nAAAA", noData, "");
        row("no payload", "[-REQUEST-]\r\n0\r\n", noData, "");
        row("no JSON", RawPeer::jsonFrame("{"), "2 payload is no JSON: invalid structure", "");
        const char *const noWord =
            "2 payload has to be an object with a string under \"operation\"";
        row("JSON list", RawPeer::jsonFrame("[1]"), noWord, "");
        row("operation a number", RawPeer::jsonFrame("{\"operation\":1}"), noWord, "");
        row("data a list", RawPeer::jsonFrame("{\"operation\":\"pub\",\"data\":[]}"),
            "2 \"data\" has to be an object", "");
        row("bomb", RawPeer::jsonFrame(QByteArray(5000000, ' ')),
            "2 payload inflates to more than 4000000 bytes", "");
    }

    void anyBytes()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, status);
        QFETCH(QString, text);
        LogCapture log;
        TrelanBusSettings settings;
        settings.setMaxInflatedSize(4000000);
        TestBus server(settings);
        RawPeer peer(server, "me");
        QVERIFY(peer.send(bytes));
        QCOMPARE(peer.receive(), status);
        QCOMPARE(isServed(peer), status != "none");
        const QString warning = CLOSED.arg(peer.address(), text);
        QCOMPARE(log.faults(), status == "none" ? QStringList(warning) : QStringList());
    }

    void refusalReachesWhoSendsOn()
    {
        // A bus that closed at once would lose the reply: the system drops it when more input
        // arrives.
        TrelanBusSettings settings;
        settings.setDiscardTime(20000); // the sender may be slow
        TestBus server(settings);
        RawPeer peer(server, "me"), other(server, "other");
        QVERIFY(peer.send("[-REQUEST-]\r\n20971520\r\n"));
        QVERIFY(peer.send(QByteArray(20971520, 'A')));
        QCOMPARE(peer.receive(), "1 a payload of 20971520 bytes is above the limit of 16777216");
        QVERIFY(peer.envelope().value("operation") == "" && peer.awaitEnd());
        QVERIFY(isServed(other));

        settings.setDiscardTime(100);
        TestBus impatient(settings);
        RawPeer endless(impatient);
        QVERIFY(endless.send("[-REQUEST-]\r\n20971520\r\n"));
        while (endless.send(QByteArray(1000000, 'A'))) // until the bus closes the connection
            continue;
    }

    void silenceAndHalfFrames_data()
    {
        const TestTable<QByteArray, QString> row("bytes", "reason");
        const QByteArray hello = RawPeer::frame("handshake {'name':'you'}");
        const QString half = "stopped in the middle of a frame";
        row("silence", QByteArray(), "sent no handshake in time");
        row("only others", LOAD, "sent no handshake in time");
        row("half a header", hello + "[-REQ", half);
        row("half a payload", hello + LOAD.chopped(1), half);
    }

    void silenceAndHalfFrames()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, reason);
        LogCapture log;
        TrelanBusSettings settings;
        settings.setHandshakeTimeout(1000);
        settings.setStallTimeout(300);
        TestBus server(settings);
        RawPeer idle(server, "me"), peer(server);
        QVERIFY(peer.send(bytes) && peer.awaitEnd());
        QCOMPARE(log.faults(), QStringList(CLOSED.arg(peer.address(), reason)));
        QVERIFY(isServed(idle)); // a registered client may be silent for as long as it likes
    }

    void unreadAnswers()
    {
        LogCapture log;
        TrelanBusSettings settings;
        settings.setStallTimeout(300);
        TestBus server(settings);
        RawPeer peer(server, "me");
        QVERIFY(peer.send(publishNoise("large", 1000000)));
        QVERIFY(peer.send(RawPeer::frame("loadObject {'nm':'large'}").repeated(100)));
        const QStringList expected(CLOSED.arg(peer.address(), "does not read its answer"));
        QTRY_COMPARE_WITH_TIMEOUT(log.faults(), expected, 30000);
        QVERIFY(peer.awaitEnd());
    }

    void lateReaderGetsAll()
    {
        // A large answer leaves in pieces, and the next request waits until it has left.
        TestBus server;
        RawPeer peer(server, "me"), other(server, "other");
        QVERIFY(peer.send(publishNoise("large", 6000000)));
        QCOMPARE(peer.receive(), "0 ");
        const QByteArray load = RawPeer::frame("loadObject {'nm':'large'}");
        QVERIFY(peer.send(load + LOAD) && peer.hasInput(30000));
        QVERIFY(peer.send(LOAD) && isServed(other));
        QCOMPARE(peer.receive(), "0 ");
        QCOMPARE(peer.data().value("nm").toString(), "large");
        for (int answer = 0; answer < 2; ++answer)
            QCOMPARE(peer.receive(), "2 there is no object \"no.such\"");
    }

    void nothingIsMadeForWhoHasGone()
    {
        constexpr int PEERS = 20;
        TestBus server;
        RawPeer staying(server, "me");
        QVERIFY(staying.send(publishNoise("large", 6000000)) && staying.receive() == "0 ");
        const QByteArray load = RawPeer::frame("loadObject {'nm':'large'}");
        _largeCompressed = 0;
        for (int i = 0; i < PEERS; ++i) {
            RawPeer leaving(server, "leaving");
            leaving.endWithReset();
            QVERIFY(leaving.send(load));
        }
        QVERIFY(staying.send(load));
        QCOMPARE(staying.receive(), "0 ");
        QVERIFY2(_largeCompressed <= PEERS / 2, qPrintable(QString::number(_largeCompressed)));
    }

    void takenOverInOneTurn()
    {
        // Two connections send something while the bus is busy. The request of the first ends the
        // second, which the bus has found readable in the same turn.
        TestBus server;
        RawPeer busy(server, "busy");
        QByteArray objects, wildcards("*.0");
        for (int i = 1; i < 500; ++i) {
            objects += RawPeer::frame("pub {'opt':2,'nm':'a.b" + QByteArray::number(i) + "'}");
            wildcards += "::*." + QByteArray::number(i);
        }
        QVERIFY(busy.send(objects));
        for (int i = 1; i < 500; ++i)
            QCOMPARE(busy.receive(), "0 ");
        const QByteArray work = RawPeer::frame("sub {'now':true,'wcs':'" + wildcards + "'}");
        for (int i = 0; i < 3; ++i) {
            RawPeer older(server, "me"), newer(server);
            newer.ask("none {}"); // returns when the bus has accepted it
            QVERIFY(busy.send(work) && newer.send(RawPeer::frame("handshake {'name':'me'}")) &&
                    older.send(LOAD));
            QVERIFY(busy.receive() == "0 " && newer.receive() == "0 ");
            QVERIFY(older.awaitEnd() && isServed(newer));
        }
    }

    void nobodyDelaysOthers()
    {
        TestBus server;
        RawPeer silent(server), half(server, "half"), peer(server, "me");
        QVERIFY(half.send("[-REQUEST-]\r\n1000\r\nAAAA"));
        for (int i = 0; i < 2000; ++i)
            QCOMPARE(peer.ask("pub {'opt':2,'nm':'a.b" + QByteArray::number(i) + "'}"), "0 ");

        std::atomic_bool over {false};
        const QByteArray flood = RawPeer::frame("loadObjects {'wc':'*.no.such'}").repeated(1000);
        const auto work = [&](const char *name) {
            RawPeer flooder(server, name);
            while (!over && flooder.send(flood)) {
                for (int i = 0; i < 1000 && !over; ++i)
                    flooder.receive();
            }
        };
        std::thread first(work, "first"), second(work, "second");
        bool served = true;
        for (int i = 0; i < 20; ++i)
            served =
                served && isServed(peer) && RawPeer(server, "new").ask("sub {'wc':'a'}") == "0 ";
        over = true;
        first.join();
        second.join();
        QVERIFY(served);
    }

    void pipelinedInOrder()
    {
        // A large request is decoded in another thread: the next ones must neither overtake it nor
        // stick.
        TestBus server;
        RawPeer peer(server, "me");
        QByteArray bytes = publishNoise("large", 300000);
        for (int i = 0; i < 3000; ++i)
            bytes += RawPeer::frame("loadObject {'nm':'n" + QByteArray::number(i) + "'}");
        std::thread sender([&] { peer.send(bytes + publishNoise("large", 300000)); });
        QStringList answers;
        for (int i = 0; i < 3002; ++i)
            answers << peer.receive();
        sender.join();
        QCOMPARE(answers.takeFirst() + answers.takeLast(), "0 0 ");
        for (int i = 0; i < 3000; ++i)
            QCOMPARE(answers.at(i), QString("2 there is no object \"n%1\"").arg(i));
    }

    /// Keeps what every thread pays small: programs may have threads with small stacks.
    void otherThreadsKeepTheirStack()
    {
        quint64 bytes = 0;
        ::dl_iterate_phdr(addThreadLocal, &bytes);
        QVERIFY2(bytes > 0 && bytes < 16 * 1024, qPrintable(QString::number(bytes)));
    }

    void connectionLimit()
    {
        LogCapture log;
        TrelanBusSettings settings;
        settings.setMaxConnections(2);
        TestBus server(settings);
        RawPeer first(server, "first");
        auto second = std::make_unique<RawPeer>(server, "second");
        for (int i = 0; i < 3; ++i)
            QVERIFY(RawPeer(server).awaitEnd());
        QVERIFY(isServed(first) && isServed(*second));
        second.reset();
        QString status;
        for (int i = 0; i < 1000 && status != "0 "; ++i) // until the bus has noticed the end
            status = RawPeer(server).ask("handshake {'name':'third'}");
        QCOMPARE(status, "0 ");
        QCOMPARE(log.faults(),
                 QStringList("warning: a connection is refused: there are 2 already"));
    }

    void outOfDescriptors()
    {
        LogCapture log;
        TestBus server;
        RawPeer early(server, "early"),
            late; // the peer has a descriptor left, the bus has none
        rlimit before {};
        ::getrlimit(RLIMIT_NOFILE, &before);
        const int firstFree = ::dup(0);
        ::close(firstFree);
        const rlimit none {rlim_t(firstFree), before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);

        const bool sent = late.connectTo(server.queryPort()) &&
                          late.send(RawPeer::frame("handshake {'name':'late'}"));
        const std::clock_t start = std::clock();
        const bool answered = late.hasInput(1000);
        const double processorTime = double(std::clock() - start) / CLOCKS_PER_SEC;
        const bool served = isServed(early);
        ::setrlimit(RLIMIT_NOFILE, &before);
        QVERIFY(sent && !answered && served);
        QVERIFY2(processorTime < 0.5, qPrintable(QString::number(processorTime)));
        QCOMPARE(log.faults().size(), 1);
        QVERIFY(log.faults().first().startsWith("warning: cannot take a connection: "));
        QVERIFY(late.receive() == "0 " && isServed(late));
    }

    void abruptEnds()
    {
        // Connections end, and lose their name, while the disk or the codec works on their request.
        QTemporaryDir folder;
        TrelanBusSettings settings;
        settings.setDataFolder(folder.path());
        LogCapture log;
        TestBus server(settings);
        const int options = TrelanObject::Stored | TrelanObject::Permanent;
        const QByteArray bytes = RawPeer::frame("handshake {'name':'me'}") +
                                 publishNoise("large", 100000, options) +
                                 publishNoise("small", 4, options) + LOAD;
        for (int i = 0; i < 100; ++i) {
            RawPeer taken(server), ended(server);
            taken.send(bytes);
            ended.send(bytes.left(bytes.size() * i / 100));
        }
        RawPeer peer(server, "me");
        QVERIFY(peer.send(bytes));
        for (const char *status : {"0 ", "0 ", "0 ", "2 there is no object \"no.such\""})
            QCOMPARE(peer.receive(), status);
    }
};

QTEST_GUILESS_MAIN(tst_TrelanBusConnections)
#include "tst_trelanbusconnections.moc"
