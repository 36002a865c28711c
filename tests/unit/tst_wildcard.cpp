#include "testsupport.h"
#include "wildcardreference.h"

#include <trelanobject.h>

#include <random>

using namespace bus;

#define AGREE(name, wildcard)                                                                      \
    if (TrelanObject::testWildCard(name, wildcard) != reference::matches(name, wildcard))          \
    QFAIL(qPrintable(QString("name \"%1\", wildcard \"%2\"").arg(name, wildcard)))

class tst_Wildcard : public QObject
{
    Q_OBJECT

private slots:
    void contract_data() { addTestRows("wildcards.json"); }

    void contract()
    {
        QFETCH(QJsonObject, row);
        const QString name = row[u"object"].toString();
        const QString wildcard = row[u"wildcard"].toString();
        QCOMPARE(TrelanObject::testWildCard(name, wildcard), row[u"match"].toBool());
        AGREE(name, wildcard);
    }

    void agreesOnAllShortPairs()
    {
        QStringList texts {QString()};
        for (int i = 0; texts.at(i).size() < 4; ++i) {
            for (const char c : {'a', 'b', '.', '+', '*'})
                texts << texts.at(i) + QLatin1Char(c);
        }
        for (const QString &name : qAsConst(texts)) {
            for (const QString &wildcard : qAsConst(texts))
                AGREE(name, wildcard);
        }
    }

    void agreesOnRandomLongPairs()
    {
        std::mt19937 random(20240607);
        const auto oneOf = [&random](const char *texts) {
            const QStringList list = QString::fromLatin1(texts).split(QLatin1Char(' '));
            return list.at(int(random() % quint32(list.size())));
        };
        int matched = 0;
        for (int round = 0; round < 250000; ++round) {
            // The wildcard is made from the name, since unrelated ones hardly ever match.
            QStringList name, wildcard;
            for (quint32 count = 1 + random() % 7; count > 0; --count) {
                name << (random() % 8 ? oneOf("a b c") : oneOf("ab a* +a a+ *a "));
                wildcard << (random() % 3 ? name.last() : oneOf("+ + * a b a+ *b "));
            }
            if (random() % 2)
                wildcard = wildcard.mid(int(random() % 3)) << oneOf("* * * + a*");
            if (random() % 3 == 0)
                wildcard.prepend(oneOf("* * + *a"));
            const QString first = name.join(QLatin1Char('.'));
            const QString second = wildcard.join(QLatin1Char('.'));
            AGREE(first, second);
            matched += reference::matches(first, second);
        }
        QVERIFY2(matched > 12500, qPrintable(QString::number(matched)));
    }
};

QTEST_APPLESS_MAIN(tst_Wildcard)
#include "tst_wildcard.moc"
