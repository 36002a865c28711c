#include <logcapture.h>
#include <rawpeer.h>
#include <testtable.h>

using namespace bus;

/// What the operations of the bus do and refuse, and who is registered.
class tst_TrelanBus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void operation_data()
    {
        // <1024> stands for 1024 characters. The status only has to contain what is expected.
        const TestTable<QByteArray, QString> row("request", "status");
        const auto rows = [&row](const char *status, const QList<QByteArray> &requests) {
            for (const QByteArray &request : requests)
                row(request, request, status);
        };
        rows("0 ",
             {"pub {'nm':'a'}", "pub {'nm':'<1024>'}", "pub {'nm':'a+.*b.++'}",
              "pub {'nm':'a','dt':12345}", "loadObjects {'wc':'no.such.*'}",
              "rm {'objects':['no.such','','..']}", "sub {'wc':'a..\\u0001 ++ '}",
              "sub {'wc':'<1024>'}", "sub {'wcs':'a.*::b'}", "sub {'wcs':''}",
              "unsub {'wc':'never'}", "unsub {'wcs':'a::::<1025>'}", "handshake {'name':'me'}"});
        rows("2 object name of 1025 characters is longer than 1024", {"pub {'nm':'<1025>'}"});
        rows("2 object name is empty", {"pub {'nm':''}"});
        rows("has an empty segment", {"pub {'nm':'.a'}", "pub {'nm':'a..b'}", "pub {'nm':'a.'}"});
        rows("has a wildcard segment", {"pub {'nm':'a.+.b'}", "pub {'nm':'*'}"});
        rows("2 object name \"a\\u009b\" holds a control character", {"pub {'nm':'a\\u009b'}"});
        rows("begins or ends with white space", {"pub {'nm':' a'}", "pub {'nm':'a\\u00a0'}"});
        rows("2 \"nm\" has to be a string", {"pub {}", "pub {'nm':1}", "loadObject {'nm':[]}"});
        rows("2 \"cnt\" has to be an object", {"pub {'nm':'a','cnt':[1]}"});
        rows("2 \"uid\" has to be a string",
             {"pub {'nm':'a','uid':1}", "sendMessage {'r':'a','uid':'<1025>'}"});
        rows("2 the receiver: ", {"sendMessage {'r':'<1025>','ops':2}"});
        rows("2 \"opt\" has to be a number", {"pub {'nm':'a','opt':'2'}"});
        rows("2 \"dt\" has to be a string", {"pub {'nm':'a','dt':[]}"});
        rows("2 there is no object \"no.such\"", {"loadObject {'nm':'no.such'}"});
        rows("2 there is no object \"\\\"\\\\\"", {"loadObject {'nm':'\\'\\\\'}"});
        rows("2 \"wc\" has to be a string", {"loadObjects {}", "sub {'wc':1}"});
        rows("2 \"objects\" has to be an array of strings",
             {"rm {'objects':'a'}", "rm {'objects':[1]}"});
        rows("2 wildcard of 1025 characters", {"sub {'wc':'<1025>'}", "sub {'wcs':'a::<1025>'}"});
        rows("2 wildcard is empty", {"sub {'wc':''}", "sub {'wcs':'a::::b'}", "unsub {'wc':''}"});
        rows("2 \"wcs\" has to be a string", {"sub {'wcs':['a']}"});
        rows("2 either \"wc\" or \"wcs\"", {"sub {}", "sub {'wc':'a','wcs':'b'}"});
        rows("2 \"told\" has to be true or false", {"sub {'wc':'a','now':true,'told':1}"});
        rows("2 \"limit\" has to be a whole number from 1 to 3600000",
             {"sendMessage {'r':'a','limit':0}", "sendMessage {'r':'a','limit':3600001}",
              "sendMessage {'r':'a','limit':1.5}", "sendMessage {'r':'a','limit':'5'}"});
        rows("2 \"removals\" has to be true or false", {"sub {'wc':'a','removals':0}"});
        rows("2 \"told\" goes with \"now\" only",
             {"sub {'wc':'a','told':true}", "sub {'wc':'a','now':false,'told':true}"});
        rows("2 wildcards of 65554 characters",
             {"sub {'now':true,'told':true,'wcs':'" + (QByteArray(1020, 'x') + "::").repeated(64) +
              QByteArray(146, 'x') + "'}"});
        rows("0 ", {"sub {'wc':'a','now':true,'told':false}", "sub {'wc':'a','told':false}"});
        rows("3 client \"bob\" is not connected",
             {"sendMessage {'r':'bob'}", "sendMessage {'r':'bob','limit':1}"});
        rows("3 this connection is registered as \"me\"", {"handshake {'name':'you'}"});
        rows("4 Unsupported request", {"PUB {'nm':'a'}", " {}"});
    }

    void operation()
    {
        QFETCH(QByteArray, request);
        QFETCH(QString, status);
        request.replace("<1024>", QByteArray(1024, 'x')).replace("<1025>", QByteArray(1025, 'x'));
        TestBus server;
        RawPeer peer(server);
        const QString early = peer.ask(request);
        if (!request.startsWith("handshake") && !request.startsWith(' '))
            QCOMPARE(early, "3 the first request has to be \"handshake\"");
        RawPeer registered(server, "me");
        const QString answer = registered.ask(request);
        QVERIFY2(answer.contains(status), qUtf8Printable(answer));
        QCOMPARE(registered.envelope().value("operation"), request.left(request.indexOf(' ')));
        QCOMPARE(registered.ask("rm {'objects':[]}"), "0 ");
    }

    void refusedHandshakeRegistersNobody()
    {
        TestBus server;
        const QByteArray longest = QString(255, QChar(0xe4)).toUtf8();
        for (const QByteArray &name : QByteArrayList {"", longest + 'x', "a\\nb"}) {
            RawPeer peer(server);
            QVERIFY(peer.ask("handshake {'name':'" + name + "'}").startsWith("3 "));
            QCOMPARE(peer.ask("handshake {'name':7}"), "2 \"name\" has to be a string");
            QCOMPARE(peer.ask("handshake {'name':'" + longest + "'}"), "0 ");
        }
    }

    void wholeNumbersStayExact()
    {
        TrelanBusSettings settings;
        settings.setCoding(TrelanTransport::Light);
        TestBus server(settings);
        RawPeer peer(server, "me");
        // A number that is no double is read by way of a map, and all that is around it.
        for (const QByteArray more : {"", "100000000000000000000"}) {
            QByteArray envelope = "{'operation':'pub','data':{'nm':'a','opt':2,'cnt':{'t':"
                                  "[1700000000123456789,9007199254740993]}},'x':[" +
                                  more + "]}";
            QVERIFY(peer.send(RawPeer::jsonFrame(envelope.replace('\'', '"'))));
            QCOMPARE(peer.receive(), "0 ");
            QCOMPARE(peer.ask("loadObject {'nm':'a'}"), "0 ");
            QCOMPARE(peer.data().value("cnt").toMap().value("t"),
                     QVariant(QVariantList {1700000000123456789LL, 9007199254740993LL}));
        }
    }

    void publishedValueIsWhole()
    {
        TestBus server;
        RawPeer peer(server, "me");
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        QCOMPARE(peer.ask("pub {'nm':'bare','p':'you','opt':2,'cnt':{'k':'x'}}"), "0 ");
        QCOMPARE(peer.ask("loadObject {'nm':'bare'}"), "0 ");
        QCOMPARE(peer.data().value("p"), QVariant("me"));
        QCOMPARE(peer.data().value("cnt").toMap(), (QVariantMap {{"k", "x"}}));
        QCOMPARE(peer.data().value("uid").toString().size(), 28);
        QVERIFY(peer.data().value("dt").toString().toLongLong() >= before);

        QCOMPARE(peer.ask("pub {'nm':'full','uid':'mine','dt':'1234567890123','opt':1026}"), "0 ");
        QCOMPARE(peer.ask("loadObject {'nm':'full'}"), "0 ");
        const QVariantMap full {{"nm", "full"},          {"p", "me"},
                                {"uid", "mine"},         {"opt", 1026},
                                {"dt", "1234567890123"}, {"cnt", QVariantMap()}};
        QCOMPARE(peer.data(), full);
    }

    void whatIsKept()
    {
        TestBus server;
        RawPeer peer(server, "me");
        const auto loaded = [&](const QByteArray &wildcard) {
            const QString status = peer.ask("loadObjects {'wc':'" + wildcard + "'}");
            return status + peer.data().keys().join(' ');
        };
        for (const char *request :
             {"pub {'nm':'a.x','opt':2,'cnt':{'v':1}}", "pub {'nm':'a.x','opt':0,'cnt':{'v':2}}",
              "pub {'nm':'a.y','opt':0}", "pub {'nm':'a.z','opt':2}", "pub {'nm':'a.z.z','opt':2}",
              "pub {'nm':'__bus__.__cmd__.go','opt':2}"})
            QCOMPARE(peer.ask(request), "0 ");
        QCOMPARE(loaded("*"), "0 a.x a.z a.z.z");
        QCOMPARE(peer.data().value("a.x").toMap().value("cnt").toMap().value("v"), QVariant(1));
        QCOMPARE(loaded("a.+"), "0 a.x a.z");
        QCOMPARE(peer.ask("loadObject {'nm':'__bus__.__cmd__.go'}").left(2), "2 ");
        QCOMPARE(peer.ask("rm {'objects':['a.z','no.such']}"), "0 ");
        QCOMPARE(loaded("*"), "0 a.x a.z.z");
    }

    void settingsAreValues()
    {
        const TrelanBusSettings defaults;
        TrelanBusSettings settings = defaults;
        settings.setMaxQueues(0);
        settings.setMaxFrameSize(Q_INT64_C(1) << 40);
        settings.setMaxObjectBytes(-5);
        settings.setMsgDescriptor(-7);
        QCOMPARE(settings.maxQueues(), 1);
        QCOMPARE(settings.maxFrameSize(), qint64(1 << 30));
        QCOMPARE(settings.maxObjectBytes(), qint64(1));
        QCOMPARE(settings.msgDescriptor(), -1);
        QCOMPARE(defaults.maxQueues(), 10000);
        QVERIFY(settings != defaults && TrelanBusSettings() == defaults);
    }

    void subscriptionLimit()
    {
        TrelanBusSettings settings;
        settings.setMaxSubscriptions(3);
        TestBus server(settings);
        RawPeer peer(server, "me");
        const QString refused = "2 a client has 3 subscriptions at most";
        QCOMPARE(peer.ask("sub {'wcs':'a::b::a'}"), "0 ");
        QCOMPARE(peer.ask("sub {'wcs':'c::d'}"), refused);
        QCOMPARE(peer.ask("sub {'wcs':'c::a'}"), "0 "); // the refused list has left nothing
        QCOMPARE(peer.ask("sub {'wc':'d'}"), refused);
        QCOMPARE(RawPeer(server, "other").ask("sub {'wcs':'d::e::f'}"), "0 ");
        QCOMPARE(peer.ask("unsub {'wcs':'b::b::never'}"), "0 ");
        QCOMPARE(peer.ask("sub {'wc':'d'}"), "0 ");
    }

    void answerAboveTheFrameLimit()
    {
        TrelanBusSettings settings;
        settings.setMaxFrameSize(100 * 1024);
        TestBus server(settings);
        RawPeer peer(server, "me");
        for (const char *name : {"a", "b", "c"}) {
            peer.send(RawPeer::frame("pub", {{"nm", name}, {"opt", 2}, {"cnt", noise(40000)}}));
            QCOMPARE(peer.receive(), "0 ");
        }
        const QString answer = peer.ask("loadObjects {'wc':'*'}");
        QVERIFY2(answer.startsWith("1 an answer of "), qUtf8Printable(answer));
        QCOMPARE(peer.ask("loadObjects {'wc':'a'}"), "0 ");
    }

    void deepestContent()
    {
        // An object that is published can be loaded in each way, though answers nest deeper than
        // requests.
        TestBus server;
        RawPeer peer(server, "me");
        const auto publish = [&](int levels) {
            const QByteArray lists = QByteArray(levels - 1, '[') + QByteArray(levels - 1, ']');
            peer.send(RawPeer::jsonFrame(
                R"({"operation":"pub","data":{"nm":"deep","opt":2,"cnt":{"v":)" + lists + "}}}"));
            return peer.receive();
        };
        QCOMPARE(publish(1000), "0 ");
        QVERIFY(peer.ask("loadObject {'nm':'deep'}") == "0 " && !peer.data().isEmpty());
        QVERIFY(peer.ask("loadObjects {'wc':'deep'}") == "0 " && !peer.data().isEmpty());
        QVERIFY(publish(1001).contains("nested 1001 levels"));
        // Qt would leak the memory of the first value.
        for (const QByteArray pair :
             {R"({"a":[1],"b":[{"c":{}}],"a" :2})", R"([{"a":{},"\u0061":{}}])"}) {
            peer.send(RawPeer::jsonFrame(R"({"operation":"pub","data":)" + pair + "}"));
            const QString answer = peer.receive();
            QVERIFY2(answer.startsWith("2 payload is no JSON: an object has the key"),
                     qPrintable(answer));
        }
        // Indentation would turn a few kilobytes on the wire into gigabytes.
        const QByteArray wide = "{\"v\":" + QByteArray(990, '[') + "0" +
                                QByteArray(",0").repeated(20000) + QByteArray(990, ']') + "}";
        peer.send(
            RawPeer::jsonFrame(R"({"operation":"pub","data":{"nm":"wide","cnt":)" + wide + "}}"));
        QVERIFY(peer.receive().startsWith("2 content of \"wide\" takes "));
        // A wildcard subscribed a thousand times counts once; too many at once are refused.
        QCOMPARE(peer.ask("sub {'wcs':'*" + QByteArray("::*").repeated(100000) + "','now':true}"),
                 "0 ");
        QVERIFY(publish(100000).startsWith("2 payload is no JSON"));
    }

    void newerConnectionWins()
    {
        LogCapture log;
        TestBus server;
        for (int i = 0; i < 20; ++i) // a client that comes back takes nothing over
            QCOMPARE(RawPeer(server, "me").ask("sub {'wc':'a'}"), "0 ");
        RawPeer refused(server, "me");
        refused.send("[-REQUEST-]\r\n99999999\r\n");
        QCOMPARE(refused.receive().left(2), "1 ");
        RawPeer first(server, "me"); // takes nothing over: the bus has closed the one before
        QCOMPARE(log.faults().join("\n"), QString());

        RawPeer second(server, "me");
        QVERIFY(first.awaitEnd());
        RawPeer third(server, "me"); // when the first ended, the second stayed registered
        QVERIFY(second.awaitEnd());
        QCOMPARE(third.ask("sub {'wc':'a'}"), "0 ");
        const QString expected =
            QString("warning: client \"me\" at %1 (%3) is taken over by %2 (%3)")
                .arg(first.address(), second.address(), RawPeer::owner());
        QCOMPARE(log.faults(), QStringList(expected)); // at most one line a minute
    }

    void lateHandshakeTakesNobodyOver()
    {
        // A request that inflates to megabytes is decoded in another thread, and may outlive its
        // connection.
        TestBus server;
        const QVariantMap padded {{"name", "me"}, {"padding", QString(20000000, 'x')}};
        const QByteArray large = RawPeer::frame("handshake", padded);
        RawPeer(server).send(large);
        RawPeer peer(server, "me");
        QVERIFY(peer.send(large)); // the answer comes after that of the request before
        QCOMPARE(peer.receive(), "0 ");
        QCOMPARE(peer.ask("sub {'wc':'a'}"), "0 ");
    }
};

QTEST_GUILESS_MAIN(tst_TrelanBus)
#include "tst_trelanbus.moc"
