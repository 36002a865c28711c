#include "rawpeer.h"
#include "testtable.h"

#include <testsupport.h>

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
    static QString written(const QString &name, const QString &id = {})
    {
        QFETCH_GLOBAL(const bool, light);
        const QString key = light ? "light" : "classic";
        const QJsonArray rows = QJsonDocument::fromJson(testData("bus.json")).array();
        for (const QJsonValue row : rows) {
            if (row["name"] == name)
                return row[key].toString().replace("<id>", id);
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
};

QTEST_GUILESS_MAIN(tst_TrelanFeatures)
#include "tst_trelanfeatures.moc"
