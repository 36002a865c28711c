#include "testsupport.h"
#include "wildcardreference.h"

#include <trelanobject.h>

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
};

QTEST_APPLESS_MAIN(tst_Wildcard)
#include "tst_wildcard.moc"
