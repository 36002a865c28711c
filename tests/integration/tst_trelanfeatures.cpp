#include "logcapture.h"
#include "rawpeer.h"
#include "slowdisk.h"
#include "testtable.h"

#include <testsupport.h>

#include <memory>

using namespace bus;

namespace
{

/// A bus that writes in the coding of the test.
struct CodedBus : TestBus
{
    static TrelanBusSettings coded(TrelanBusSettings settings)
    {
        QFETCH_GLOBAL(const bool, light);
        settings.setCoding(light ? TrelanTransport::Light : TrelanTransport::Classic);
        return settings;
    }
    explicit CodedBus(const TrelanBusSettings &settings = {})
        : TestBus(coded(settings))
    {}
};

/// The text of a message, in short: "name=x stored", "told wildcards", or "-name" of a removal.
QString shortOf(const QVariantMap &message)
{
    const auto text = QJsonDocument::fromJson(message["msg"].toString().toUtf8()).object();
    if (text.contains("__sub__"))
        return text["__reason__"].toString() + ' ' + text["__sub__"].toString();
    if (text["__reason__"] == "removed")
        return '-' + text["__name__"].toString();
    return text["__name__"].toString() + '=' + QString::number(text["__context__"]["x"].toInt()) +
           ' ' + text["__stored__"].toString();
}

/// Publishes a stored object whose content is one number.
QString publish(RawPeer &peer, const QByteArray &name, int x, int options = 2)
{
    return peer.ask("pub {'nm':'" + name + "','opt':" + QByteArray::number(options) +
                    ",'cnt':{'x':" + QByteArray::number(x) + "}}");
}

/// Both connections of a client; that for messages is made later.
struct Reader
{
    explicit Reader(const TrelanBus &server)
        : bus(server)
        , query(server, "me")
    {}

    /// Opens the message connection anew.
    bool open()
    {
        messages = std::make_unique<RawPeer>();
        return messages->connectTo(bus.msgPort()) &&
               messages->ask("handshake {'name':'me'}") == "0 ";
    }
    QString receive(bool acknowledges = true)
    {
        const QVariantMap message = messages->receiveDelivery();
        uid = message["uid"].toString();
        if (acknowledges)
            messages->acknowledge(message);
        return shortOf(message);
    }
    /// The next deliveries, each acknowledged.
    QString receive(int number)
    {
        QStringList received;
        for (int i = 0; i < number; ++i)
            received << receive();
        return received.join(", ");
    }
    /// Whether nothing comes: the bus has done what it can when it has answered.
    bool isQuiet() { return query.ask("clients {}") == "0 " && !messages->hasMore(); }

    const TrelanBus &bus;
    RawPeer query;
    std::unique_ptr<RawPeer> messages;
    QString uid; // of the last delivery
};

QByteArray golden(const QString &name)
{
    return testData("frames/" + name + ".bin");
}

} // namespace

/// What the bus does only for clients that ask for it.
class tst_TrelanFeatures : public QObject
{
    Q_OBJECT

    /// What the bus has to write, with \a id in the place of each "<id>".
    static QString written(const QString &name, const QString &id = {}, const QString &time = {})
    {
        QFETCH_GLOBAL(const bool, light);
        const QString key = light ? "light" : "classic";
        const QJsonArray rows = QJsonDocument::fromJson(testData("bus.json")).array();
        for (const QJsonValue row : rows) {
            if (row["name"] == name)
                return row[key].toString().replace("<id>", id).replace("<time>", time);
        }
        return {};
    }

    /// Whether the next delivery is as it has to be written, and nothing comes before it is
    /// acknowledged.
    static bool receivesGolden(Reader &reader, const QString &name)
    {
        const QVariantMap message = reader.messages->receiveDelivery();
        const QString expected = written(name, message["uid"].toString(), message["dt"].toString());
        const bool isRight = QString::fromUtf8(reader.messages->text()) == expected;
        if (!isRight)
            qWarning().noquote() << reader.messages->text() << "instead of" << expected;
        return isRight && reader.isQuiet() && reader.messages->acknowledge(message);
    }

private Q_SLOTS:
    void initTestCase_data()
    {
        const TestTable<bool> row("light");
        row("Classic", false);
        row("Light", true);
    }

    void handshake()
    {
        CodedBus server, other;
        RawPeer query(server), messages, elsewhere(other);
        QVERIFY(messages.connectTo(server.msgPort()));
        QString instance;
        for (RawPeer *peer : {&query, &messages}) {
            const QString name = peer == &query ? "features-query" : "features-message";
            for (int i = 0; i < 2; ++i) { // the second one changes nothing
                QVERIFY(peer->send(golden("handshake-features")));
                QCOMPARE(peer->receive(), "0 ");
                if (instance.isEmpty())
                    instance = peer->data()["instance"].toString();
                QCOMPARE(QString::fromUtf8(peer->text()), written(name, instance));
            }
            for (const QByteArray asked : {"", ",'features':false", ",'features':'true'"}) {
                QCOMPARE(peer->ask("handshake {'name':'me'" + asked + "}"), "0 ");
                QCOMPARE(QString::fromUtf8(peer->text()), written("no-features"));
            }
        }
        QVERIFY(elsewhere.send(golden("handshake-features")));
        QCOMPARE(elsewhere.receive(), "0 ");
        const QString another = elsewhere.data()["instance"].toString();
        QVERIFY(!instance.isEmpty() && !another.isEmpty() && instance != another);
    }

    void told()
    {
        CodedBus server;
        RawPeer writer(server, "thermometer");
        Reader reader(server);
        QVERIFY(reader.open());
        const QByteArray value =
            "'nm':'room.cellar','uid':'u','dt':'1700000000123','cnt':{'celsius':12}";
        const auto receives = [&](const QString &name) { return receivesGolden(reader, name); };
        QCOMPARE(reader.query.ask("sub {'wc':'room.*'}"), "0 ");
        QCOMPARE(writer.ask("pub {'opt':2," + value + "}"), "0 ");
        QVERIFY(receives("plain"));
        QVERIFY(reader.query.send(golden("sub-told")));
        QCOMPARE(reader.query.receive(), "0 ");
        QVERIFY(receives("now")); // and the marker has to wait
        QVERIFY(receives("told"));
        QCOMPARE(writer.ask("pub {'opt':2," + value + "}"), "0 ");
        QVERIFY(receives("changed"));
        QCOMPARE(writer.ask("pub {" + value + "}"), "0 "); // an event
        QVERIFY(receives("plain"));
        QVERIFY(reader.isQuiet());
    }

    /// What is asked for is told as such, however long it waits and whatever happens meanwhile.
    void toldLate()
    {
        TrelanBusSettings settings;
        settings.setConflateAbove(2);
        CodedBus server(settings);
        RawPeer writer(server, "writer"), other(server, "other"), others;
        Reader reader(server);
        for (const QByteArray name : {"a", "b", "c", "d"})
            QCOMPARE(publish(writer, name, 1), "0 ");
        QCOMPARE(reader.query.ask("sub {'wc':'b','now':true,'told':true}"), "0 ");
        QCOMPARE(reader.query.ask("sub {'wc':'*','now':true,'told':true}"), "0 ");
        QCOMPARE(reader.query.ask("unsub {'wc':'*'}"), "0 "); // takes nothing back
        QCOMPARE(reader.query.ask("sub {'wcs':'c::d'}"), "0 ");
        QCOMPARE(publish(writer, "c", 2), "0 ");
        QVERIFY(reader.open());
        QCOMPARE(reader.receive(false), "b=1 now");
        QVERIFY(reader.open()); // nothing was acknowledged
        QCOMPARE(reader.receive(2), "b=1 now, told b");
        QCOMPARE(reader.receive(false), "a=1 now");
        QCOMPARE(reader.receive(false), "b=1 now");
        QCOMPARE(reader.receive(false), "c=2 now");
        QCOMPARE(publish(writer, "c", 3), "0 "); // after the marker, but for the next line
        QVERIFY(reader.open());
        QCOMPARE(reader.receive(5), "a=1 now, b=1 now, c=3 now, d=1 now, told *");
        // One who has not asked is told as ever, with the same value.
        QCOMPARE(other.ask("sub {'wc':'c','now':true}"), "0 ");
        QCOMPARE(publish(writer, "c", 4), "0 ");
        QCOMPARE(reader.receive(), "c=4 changed");
        QVERIFY(others.connectTo(server.msgPort()));
        QCOMPARE(others.ask("handshake {'name':'other'}"), "0 ");
        for (const QString expected : {"c=3 ", "c=4 "})
            QCOMPARE(shortOf(others.receiveDelivery()), expected);
        // The subscriptions end with the connection, and what they brought along with them.
        QCOMPARE(reader.query.ask("sub {'wc':'a','now':true,'told':true}"), "0 ");
        QCOMPARE(reader.receive(false), "a=1 now");
        RawPeer newer(server, "me");
        QVERIFY(reader.query.awaitEnd());
        QVERIFY(reader.open());
        QCOMPARE(newer.ask("sub {'wc':'c','now':true}"), "0 ");
        QCOMPARE(reader.receive(), "c=4 ");
    }

    void removals()
    {
        CodedBus server;
        RawPeer writer(server, "thermometer"), other(server, "other"), others;
        Reader reader(server);
        QVERIFY(reader.open() && others.connectTo(server.msgPort()));
        QCOMPARE(others.ask("handshake {'name':'other'}"), "0 ");
        QCOMPARE(other.ask("sub {'wc':'*'}"), "0 ");
        QVERIFY(reader.query.send(golden("sub-removals")));
        QCOMPARE(reader.query.receive(), "0 ");
        const QByteArray value = "pub {'nm':'room.cellar','opt':2,'uid':'u','cnt':{'x':1}}";
        const QByteArray remove = "rm {'objects':['room.cellar','room.none','room.cellar']}";
        for (int i = 0; i < 2; ++i) { // the second time under an id that the reader knows
            QCOMPARE(writer.ask(value), "0 ");
            QCOMPARE(reader.receive(), "room.cellar=1 ");
            QCOMPARE(reader.uid == "u", i == 0);
            QCOMPARE(writer.ask(remove), "0 ");
            QVERIFY(receivesGolden(reader, "removed"));
        }
        QCOMPARE(writer.ask(remove), "0 "); // it is not there any more
        QVERIFY(reader.isQuiet());
        QCOMPARE(reader.query.ask("sub {'wc':'room.*'}"), "0 "); // leaves removals as they are
        QCOMPARE(writer.ask(value), "0 ");
        QCOMPARE(reader.receive(), "room.cellar=1 ");
        QCOMPARE(writer.ask(remove), "0 ");
        QCOMPARE(reader.receive(false), "-room.cellar");
        QVERIFY(reader.open());
        QCOMPARE(reader.receive(), "-room.cellar");
        QCOMPARE(reader.query.ask("unsub {'wc':'room.*'}"), "0 ");
        QCOMPARE(reader.query.ask("sub {'wc':'room.*'}"), "0 ");
        QCOMPARE(writer.ask(value), "0 ");
        QCOMPARE(reader.receive(), "room.cellar=1 ");
        QCOMPARE(writer.ask(remove), "0 ");
        QVERIFY(reader.isQuiet());
        for (int i = 0; i < 3; ++i) { // nor is who has not asked told of any; same value, same id
            QCOMPARE(shortOf(others.receiveDelivery()), "room.cellar=1 ");
        }
    }

    /// A client that is behind ends with what is there, in few words.
    void removalsWait()
    {
        TrelanBusSettings settings;
        settings.setConflateAbove(1);
        CodedBus server(settings);
        RawPeer writer(server, "writer");
        Reader reader(server);
        for (const QByteArray name : {"a", "b", "c", "d"})
            QCOMPARE(publish(writer, name, 1), "0 ");
        QCOMPARE(reader.query.ask("sub {'wc':'*','now':true,'told':true,'removals':true}"), "0 ");
        QCOMPARE(publish(writer, "e", 1), "0 ");
        QCOMPARE(writer.ask("rm {'objects':['a','b','c','e']}"), "0 ");
        QCOMPARE(publish(writer, "c", 2), "0 ");
        QVERIFY(reader.open());
        // The value of a is no name that waits: it was queued as a whole.
        QCOMPARE(reader.receive(false), "a=1 now");
        QCOMPARE(reader.receive(false), "-b");
        QVERIFY(reader.open());
        QCOMPARE(reader.receive(5), "a=1 now, -b, c=2 now, d=1 now, told *");
        QCOMPARE(reader.receive(2), "-e, -a");
        QVERIFY(reader.isQuiet());
    }

    /// Removals keep their place among publishes that wait for the disk.
    void removalsBehindTheDisk()
    {
        const QTemporaryDir folder;
        TrelanBusSettings settings;
        settings.setDataFolder(folder.path());
        CodedBus server(settings);
        RawPeer slow(server, "slow"), writer(server, "writer");
        Reader reader(server);
        QVERIFY(reader.open());
        int requests = 0;
        // Sends what the disk has to acknowledge, and waits until the bus is at it.
        const auto begin = [&](const QByteArray &request) {
            const auto stopped = [&] {
                return writer.ask("clients {}") == "0 " ? writer.data()["clients"].toList()[1] : 0;
            };
            slow.send(RawPeer::frame(request));
            ++requests;
            return QTest::qWaitFor([&] { return stopped().toMap()["in"].toInt() == requests; });
        };
        const QByteArray permanent = "pub {'nm':'p','opt':6,'cnt':{'x':1}}";
        const QByteArray remove = "rm {'objects':['a']}", removePermanent = "rm {'objects':['p']}";
        QCOMPARE(reader.query.ask("sub {'wc':'*'}"), "0 ");
        QVERIFY(begin(permanent) && slow.receive() == "0 ");
        QCOMPARE(reader.receive(), "p=1 ");
        auto stopped = slowdisk::stop();
        QVERIFY(begin(removePermanent));
        QCOMPARE(publish(writer, "a", 1), "0 "); // nobody is told of removals, and nothing waits
        QCOMPARE(reader.receive(), "a=1 ");
        // The subscription comes before the removal, although that has come first.
        QCOMPARE(reader.query.ask("sub {'wc':'*','removals':true}"), "0 ");
        stopped.unlock();
        QCOMPARE(slow.receive(), "0 ");
        QCOMPARE(reader.receive(), "-p");

        stopped.lock();
        QVERIFY(begin(permanent));
        QCOMPARE(publish(writer, "a", 2), "0 ");
        QCOMPARE(writer.ask(remove), "0 ");
        QCOMPARE(publish(writer, "b", 1), "0 ");
        QCOMPARE(writer.ask("rm {'objects':['b']}"), "0 ");
        QCOMPARE(publish(writer, "b", 2), "0 "); // in place of the removal
        QVERIFY(reader.isQuiet());
        stopped.unlock();
        QCOMPARE(slow.receive(), "0 ");
        QCOMPARE(reader.receive(5), "p=1 , a=2 , -a, b=1 , b=2 ");

        stopped.lock();
        QVERIFY(begin(removePermanent));
        QCOMPARE(publish(writer, "a", 3), "0 ");
        QCOMPARE(writer.ask(remove), "0 ");
        QCOMPARE(publish(writer, "a", 4), "0 ");
        QVERIFY(reader.isQuiet());
        QCOMPARE(reader.query.ask("sub {'wcs':'a::p','now':true,'told':true}"), "0 ");
        QCOMPARE(reader.receive(3), "a=4 now, p=1 now, told a::p");
        QCOMPARE(writer.ask(remove), "0 ");
        stopped.unlock();
        QCOMPARE(slow.receive(), "0 ");
        QCOMPARE(reader.receive(2), "-p, -a"); // what was told already, and nothing older
        QVERIFY(reader.isQuiet());
    }

    /// Very many removals hold nobody up.
    void removalsOfMany()
    {
        constexpr int OBJECTS = 3000;
        CodedBus server;
        RawPeer writer(server, "writer"), other(server, "other");
        Reader reader(server);
        QByteArrayList names;
        for (int i = 0; i < OBJECTS; ++i) {
            names << "'a." + QByteArray::number(i) + '\'';
            QVERIFY(writer.send(RawPeer::frame("pub {'opt':2,'nm':" + names.last() + "}")));
        }
        for (int i = 0; i < OBJECTS; ++i)
            QCOMPARE(writer.receive(), "0 ");
        QCOMPARE(other.ask("sub {'wcs':'a.+::*','removals':true}"), "0 ");
        QVERIFY(reader.open());
        QCOMPARE(reader.query.ask("sub {'wc':'*','removals':true}"), "0 ");
        // Both requests are there at once: the second one is answered in between.
        QVERIFY(writer.send(RawPeer::frame("rm {'objects':[" + names.join(',') + "]}") +
                            RawPeer::frame("clients {}")));
        QCOMPARE(writer.receive(), "0 ");
        QCOMPARE(writer.receive(), "0 ");
        const QVariantMap first = writer.data()["clients"].toList()[1].toMap();
        QCOMPARE(first["name"].toString(), "other");
        QVERIFY2(first["queued"].toInt() < OBJECTS / 2, qPrintable(first["queued"].toString()));
        QSet<QString> removed;
        for (int i = 0; i < OBJECTS; ++i)
            removed.insert(reader.receive());
        QCOMPARE(removed.size(), OBJECTS);
        QVERIFY(removed.contains("-a.2999"));
    }

    void removalsPastTheBound()
    {
        LogCapture log;
        TrelanBusSettings settings;
        settings.setConflateAbove(1);
        settings.setMaxClientNames(3);
        CodedBus server(settings);
        RawPeer writer(server, "writer");
        Reader reader(server);
        for (const QByteArray name : {"a", "b", "c", "d", "e"})
            QCOMPARE(publish(writer, name, 1), "0 ");
        QVERIFY(reader.open());
        for (int i = 0; i < 64; ++i) // fills the window
            QCOMPARE(writer.ask("sendMessage {'r':'me','msg':''}"), "0 ");
        QCOMPARE(reader.query.ask("sub {'wc':'*','removals':true}"), "0 ");
        QCOMPARE(writer.ask("rm {'objects':['a','b','c','d','e']}"), "0 ");
        QVERIFY(reader.messages->awaitEnd());
        QCOMPARE(log.faults().join('\n'),
                 "warning: client \"me\" loses its subscriptions and its message connection: 3 "
                 "objects wait for it at most");
        QCOMPARE(publish(writer, "a", 1), "0 ");
        QCOMPARE(writer.ask("rm {'objects':['a']}"), "0 ");
        QCOMPARE(writer.ask("clients {}"), "0 ");
        const QVariantMap me = writer.data()["clients"].toList()[0].toMap();
        QCOMPARE(me["subscriptions"].toInt(), 0);
        QCOMPARE(me["queued"].toInt(), 64); // the messages
    }

    void limits()
    {
        const QTemporaryDir folder;
        TrelanBusSettings settings;
        settings.setDataFolder(folder.path());
        const QByteArray stored = "sendMessage {'r':'me','ops':2,'msg':'";
        {
            LogCapture log;
            CodedBus server(settings);
            RawPeer writer(server, "writer");
            QCOMPARE(writer.ask(stored + "soon over','limit':1}"), "0 ");
            const auto clients = [&writer] {
                return writer.ask("clients {}") == "0 " ? writer.data()["clients"].toList().size()
                                                        : -1;
            };
            QTRY_COMPARE(clients(), 1); // it does not wait any more
            QCOMPARE(log.faults().join('\n'), QString());
            Reader reader(server);
            QVERIFY(reader.open());
            QVERIFY(writer.send(golden("limited")));
            QCOMPARE(writer.receive(), "0 ");
            QCOMPARE(reader.messages->receiveDelivery()["msg"].toString(), "hi");
            QCOMPARE(writer.ask(stored + "in memory','limit':3600000}"), "0 ");
            QCOMPARE(writer.ask(stored + "on disk'}"), "0 ");
        }
        CodedBus server(settings);
        Reader reader(server);
        QVERIFY(reader.open());
        QCOMPARE(reader.messages->receiveDelivery()["msg"].toString(), "on disk");
    }

    void boundsOfMarkers()
    {
        CodedBus server;
        Reader reader(server);
        const QByteArray wildcards = (QByteArray(1022, 'x') + "::").repeated(63) + "x";
        const auto subscribe = [&](const QByteArray &text) {
            return reader.query.ask("sub {'now':true,'told':true,'wcs':'" + text + "'}");
        };
        for (int i = 0; i < 99; ++i)
            QCOMPARE(subscribe(i < 7 ? wildcards : ""), "0 ");
        QCOMPARE(subscribe(wildcards + 'y'),
                 "512 client \"me\" has subscriptions of 1048576 bytes to be told of at most");
        QCOMPARE(subscribe(""), "0 ");
        const QString full = "512 client \"me\" has 100 subscriptions to be told of at most";
        QCOMPARE(subscribe("y"), full);
        QCOMPARE(reader.query.ask("clients {}"), "0 ");
        const QVariantMap me = reader.query.data()["clients"].toList()[0].toMap();
        QCOMPARE(me["subscriptions"].toInt(), 2); // what was refused is not subscribed
        QVERIFY(reader.open());
        QCOMPARE(reader.receive(), "told " + wildcards);
        QCOMPARE(subscribe(""), "0 ");
        QCOMPARE(subscribe(""), full);
    }
};

QTEST_GUILESS_MAIN(tst_TrelanFeatures)
#include "tst_trelanfeatures.moc"
