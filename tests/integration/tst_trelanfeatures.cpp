#include "rawpeer.h"
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

/// The text of a message, in short: "name=x stored", or "reason wildcards" of a marker.
QString shortOf(const QVariantMap &message)
{
    const auto text = QJsonDocument::fromJson(message["msg"].toString().toUtf8()).object();
    if (text.contains("__sub__"))
        return text["__reason__"].toString() + ' ' + text["__sub__"].toString();
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
    bool isQuiet() { return query.ask("clients {}") == "0 " && !messages->hasInput(0); }

    const TrelanBus &bus;
    RawPeer query;
    std::unique_ptr<RawPeer> messages;
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
        const auto receives = [&](const QString &name) {
            const QVariantMap message = reader.messages->receiveDelivery();
            const QString expected =
                written(name, message["uid"].toString(), message["dt"].toString());
            if (QString::fromUtf8(reader.messages->text()) != expected)
                qWarning().noquote() << reader.messages->text() << "instead of" << expected;
            const bool isRight = QString::fromUtf8(reader.messages->text()) == expected;
            return isRight && reader.isQuiet() && reader.messages->acknowledge(message);
        };
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
        QCOMPARE(newer.ask("sub {'wc':'c','now':true}"), "0 ");
        QCOMPARE(reader.receive(), "c=4 ");
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
