#include <daemon.h>
#include <rawpeer.h>
#include <testtable.h>

#include <sys/resource.h>

#include <atomic>
#include <memory>
#include <thread>

using namespace bus;

namespace
{

/// A number for everyday runs, and another one for the long run.
int amount(int everyDay, int soak)
{
    return qEnvironmentVariableIsSet("TRELAN_SOAK") ? soak : everyDay;
}

/// A client that does no harm, and measures how long it waits for its answers.
class Bystander
{
public:
    explicit Bystander(quint16 queryPort)
        : _peer(queryPort, "bystander")
        , _thread([this] { run(); })
    {}
    ~Bystander() { longestWait(); }

    /// Ends the client. Returns its longest wait in milliseconds; a huge number if it got no
    /// answer.
    int longestWait()
    {
        _over = true;
        if (_thread.joinable())
            _thread.join();
        return _longest;
    }

private:
    void run()
    {
        while (!_over && !_peer.hasInput(1)) {
            QElapsedTimer timer;
            timer.start();
            const bool served = _peer.ask("sub {'wc':'a'}") == "0 ";
            _longest = qMax(_longest, served ? int(timer.elapsed()) : 1000000);
        }
    }

    RawPeer _peer;
    std::atomic_bool _over {false};
    int _longest = 0;
    std::thread _thread;
};

/// Frames as nobody should send them. A seed always makes the frames that it made before.
class Attacker
{
public:
    explicit Attacker(quint32 seed)
        : _random(seed)
    {}

    int below(int end) { return int(_random() % unsigned(end)); }

    /// A sound frame around any payload: the bus has to answer it.
    QByteArray soundFrame(TrelanFrame::Kind kind)
    {
        static const QByteArray BOMB = qCompress(QByteArray(100000000, ' ')).toBase64();
        QByteArray json = request();
        if (below(3) == 0)
            mutate(json);
        QByteArray payload = qCompress(json, 1).toBase64();
        if (below(5) == 0)
            mutate(payload);
        return TrelanFrame::frame(kind, below(5000) == 0 ? BOMB : payload);
    }

    /// Bytes after which the two sides disagree where a frame begins.
    QByteArray brokenFrame()
    {
        QByteArray frame = soundFrame(TrelanFrame::Request);
        if (below(3) == 0)
            return frame.left(below(frame.size()));
        if (below(3) == 0)
            frame = "[-REQUEST-]\r\n" + QByteArray::number(qint64(_random()) << below(32)) + "\r\n";
        mutate(frame);
        return frame;
    }

private:
    void mutate(QByteArray &bytes)
    {
        for (int i = below(5); i >= 0 && !bytes.isEmpty(); --i) {
            const int at = below(bytes.size());
            if (below(2) == 0)
                bytes[at] = char(_random());
            else
                bytes.remove(at, below(2) == 0 ? 1 : bytes.size());
        }
    }
    QByteArray oneOf(const QByteArrayList &texts) { return texts[below(texts.size())]; }
    QByteArray value()
    {
        static const QByteArrayList VALUES =
            QByteArray("null true [] {} -1 2 6 1e400 9007199254740993 '' 'a' 'a.b' 'a.*::*.b.*' "
                       "'*' '\\u0000\\ud800' ['a',1] {'x':{'y':1}}")
                .replace('\'', '"')
                .split(' ');
        const int what = below(200);
        if (what == 0) // nested deeper than any recursion ought to go
            return QByteArray("[").repeated(below(200000));
        if (what == 1)
            return '"' + QByteArray(below(200000), char('a' + below(26))) + '"';
        return oneOf(VALUES);
    }
    QByteArray request()
    {
        static const QByteArrayList OPERATIONS =
            QByteArray("handshake pub loadObject loadObjects rm sub unsub sendMessage clients ")
                .split(' ');
        static const QByteArrayList KEYS =
            QByteArray("name nm cnt opt dt uid wc wcs now objects r s msg ops sender reciever")
                .split(' ');
        QByteArray data = "\"name\":\"a\",\"nm\":\"a.b\",\"wc\":\"a\",\"r\":\"a\",\"msg\":\"\"";
        for (int i = below(6); i > 0; --i) // the bus takes the last value of a key
            data += ",\"" + oneOf(KEYS) + "\":" + value();
        return R"({"operation":")" + oneOf(OPERATIONS) + R"(","data":{)" + data + "}}";
    }

    std::mt19937 _random;
};

} // namespace

/// Many clients, hostile clients, and clients that come and go: the others must not notice.
class tst_Load : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        rlimit descriptors {};
        ::getrlimit(RLIMIT_NOFILE, &descriptors);
        descriptors.rlim_cur = descriptors.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &descriptors);
    }

    void joins()
    {
        TestBus server;
        RawPeer writer(server, "writer"), query(server, "me"), messages;
        QVERIFY(messages.connectTo(server.msgPort()));
        QCOMPARE(messages.ask("handshake {'name':'me'}"), "0 ");
        std::atomic_int last {0};
        std::atomic_bool over {false};
        std::thread counting([&] {
            for (int i = 1; !over;) {
                const bool isAhead = i > last + 20; // the bus would leave values out
                if (isAhead || writer.ask("pub {'nm':'n','opt':2,'cnt':{'i':" +
                                          QByteArray::number(i) + "}}") == "0 ")
                    i += isAhead ? 0 : 1;
            }
        });
        // The bus delivers the mark after everything of the subscription before it.
        const QByteArray join = RawPeer::frame("unsub {'wc':'n'}") +
                                RawPeer::frame("sendMessage {'r':'me','msg':'mark'}") +
                                RawPeer::frame("sub {'wc':'n','now':true}");
        QString fault;
        for (int i = amount(200, 100000); i > 0 && fault.isEmpty(); --i) {
            query.send(join);
            if (query.receive() + query.receive() + query.receive() != "0 0 0 ")
                fault = "refused";
            for (int after = -1; after < 3 && fault.isEmpty();) {
                const QVariantMap message = messages.receiveDelivery();
                messages.acknowledge(message);
                const QByteArray text = message.value("msg").toString().toUtf8();
                const int number = QJsonDocument::fromJson(text)["__context__"]["i"].toInt();
                if (text == "mark")
                    after = 0;
                else if (after == 0 ? number < last : number != last + 1)
                    fault = QString("%1 comes after %2").arg(number).arg(last);
                last = text == "mark" ? last.load() : number;
                after += after < 0 || text == "mark" ? 0 : 1;
            }
        }
        over = true;
        counting.join();
        QCOMPARE(fault, QString());
    }

    void hostileFrames()
    {
        const int chosen = qEnvironmentVariableIntValue("TRELAN_LOAD_SEED");
        const quint32 seed =
            chosen != 0 ? quint32(chosen) : quint32(amount(1, int(std::random_device()())));
        constexpr int BATCH = 40;
        // The bus may store and queue this much, and inflate some bombs meanwhile. The sanitizer
        // keeps freed memory for a while.
#ifdef __SANITIZE_ADDRESS__
        constexpr int MAX_MIB = 1000;
#else
        constexpr int MAX_MIB = 400;
#endif
        // Qt's parser leaks a few bytes of each text that is no JSON. This test is about the peak
        // of memory; all other tests look for leaks.
        qputenv("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0");
        Attacker attacker(seed);
        Daemon daemon(TRELANBUSD);
        QVERIFY(daemon.start(
            {"--log-level", "critical", "--max-bytes", "16MiB", "--max-queued-bytes", "64MiB"}));
        Bystander bystander(daemon.queryPort);
        for (int sent = 0; sent < amount(4000, 1000000); sent += BATCH + 1) {
            const bool onMessages = attacker.below(4) == 0;
            RawPeer peer;
            peer.endWithReset();
            QVERIFY(peer.connectTo(onMessages ? daemon.msgPort : daemon.queryPort));
            QByteArray bytes;
            int answers = BATCH;
            for (int i = 0; i < BATCH; ++i) {
                const bool isReply = onMessages && attacker.below(2) == 0;
                bytes += attacker.soundFrame(isReply ? TrelanFrame::Reply : TrelanFrame::Request);
                answers -= isReply ? 1 : 0;
            }
            QVERIFY(peer.send(bytes));
            while (answers > 0) {
                const bool answered = peer.receive() != "none";
                QVERIFY2(answered || !peer.envelope().isEmpty(), // the bus has delivered something
                         qPrintable(QString("seed %1, at %2").arg(seed).arg(sent)));
                answers -= answered ? 1 : 0;
            }
            peer.send(attacker.brokenFrame());
        }
        qInfo("seed %u: longest wait of another client %d ms, most memory %d MiB", seed,
              bystander.longestWait(), daemon.status("VmHWM") / 1024);
        QVERIFY(bystander.longestWait() < 5000);
        QVERIFY(daemon.status("VmHWM") < MAX_MIB * 1024);
        QCOMPARE(daemon.end(SIGTERM), 0);
    }

    void crowds_data()
    {
        const TestTable<int, int, bool> row("number", "descriptors", "stay");
        row("silent, or with half a frame", amount(500, 10000), 0, true);
#ifndef __SANITIZE_ADDRESS__ // its check of types takes a missing descriptor for a fault
        row("more than there are descriptors", 300, 60, true);
#endif
        row("come and go", amount(2000, 100000), 0, false);
    }

    void crowds()
    {
        QFETCH(int, number);
        QFETCH(int, descriptors);
        QFETCH(bool, stay);
        Daemon daemon(TRELANBUSD);
        QVERIFY(daemon.start({"--log-level", "critical", "--max-connections", "15000"}));
        Bystander bystander(daemon.queryPort);
        const rlimit limit {rlim_t(descriptors), rlim_t(descriptors)};
        if (descriptors > 0)
            QVERIFY(::prlimit(daemon.pid(), RLIMIT_NOFILE, &limit, nullptr) == 0);
        std::list<RawPeer> crowd;
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < number; ++i) {
            crowd.emplace_back().endWithReset();
            QVERIFY(crowd.back().connectTo(i % 2 == 0 ? daemon.queryPort : daemon.msgPort));
            if (stay && i % 4 < 2)
                crowd.back().send("[-REQUEST-]\r\n1000\r\nAAA");
            else if (!stay)
                crowd.clear();
        }
        const qint64 time = qMax<qint64>(1, timer.elapsed());
        crowd.clear();
        RawPeer late(daemon.queryPort);
        QCOMPARE(late.ask("handshake {'name':'late'}"), "0 ");
        qInfo("%lld connections a second, longest wait of another client %d ms",
              number * 1000 / time, bystander.longestWait());
        QVERIFY(bystander.longestWait() < 2000);
    }
};

QTEST_GUILESS_MAIN(tst_Load)
#include "tst_load.moc"
