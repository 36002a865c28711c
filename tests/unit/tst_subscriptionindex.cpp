#include "rules/subscriptionindex.h"

#include <trelanobject.h>

#include <QtTest/QtTest>

#include <random>

using namespace bus;

class tst_SubscriptionIndex : public QObject
{
    Q_OBJECT

private slots:
    /// The index agrees with a plain scan while subscriptions come and go between the questions.
    void agreesWithThePlainScan_data()
    {
        QTest::addColumn<int>("clients");
        QTest::addColumn<int>("changes"); // between two questions
        QTest::newRow("few changes") << 6 << 2;
        QTest::newRow("more than are tried one by one") << 40 << 150;
    }

    void agreesWithThePlainScan()
    {
        QFETCH(const int, clients);
        QFETCH(const int, changes);
        std::mt19937 random(20261123);
        const auto below = [&random](int limit) { return int(random() % quint32(limit)); };
        const auto text = [&below](const QStringList &segments) {
            QStringList parts;
            for (int count = 1 + below(4); count > 0; --count)
                parts << segments.at(below(segments.size()));
            return parts.join('.');
        };
        SubscriptionIndex index;
        QMap<QString, QSet<QString>> plain;
        int heard = 0;
        for (int round = 0; round < 600; ++round) {
            for (int i = 0; i < changes; ++i) {
                const QString client = QString("client %1").arg(below(clients));
                const QString wildcard = text({"a", "b", "c", "+", "*", "a*", "*b", "+a", ""});
                if (below(40) == 0) {
                    index.removeClient(client);
                    plain.remove(client);
                } else if (below(2) == 0) {
                    index.remove(client, wildcard);
                    plain[client].remove(wildcard);
                } else {
                    index.add(client, wildcard);
                    plain[client].insert(wildcard);
                }
                QCOMPARE(index.count(client), plain.value(client).size());
                QCOMPARE(index.contains(client, wildcard), plain.value(client).contains(wildcard));
            }
            const QString name = text({"a", "b", "c", "ab", "a*", "a*b"});
            QStringList expected;
            for (auto client = plain.cbegin(); client != plain.cend(); ++client) {
                for (const QString &wildcard : *client) {
                    if (!TrelanObject::testWildCard(name, wildcard))
                        continue;
                    expected << client.key();
                    break;
                }
            }
            QStringList receivers = index.receivers(name);
            receivers.sort();
            expected.sort();
            QCOMPARE(receivers, expected);
            heard += expected.size();
        }
        QVERIFY(heard > 600);
    }

    /// A client that subscribes and unsubscribes for ever must not use up the memory.
    void keepsNoTextThatIsGone()
    {
        const QString wildcard = QString("a.%1").arg('+');
        SubscriptionIndex index;
        index.add("client", wildcard);
        QCOMPARE(index.receivers("a.b"), QStringList("client"));
        index.remove("client", wildcard);
        QVERIFY(wildcard.isDetached());
    }
};

QTEST_APPLESS_MAIN(tst_SubscriptionIndex)

#include "tst_subscriptionindex.moc"
