#include "wildcardreference.h"

#include <trelanobject.h>

#include <QtCore/QVector>
#include <QtTest/QtTest>

#include <random>

using bus::TrelanObject;

class tst_Wildcard : public QObject
{
    Q_OBJECT

private slots:
    void contract_data();
    void contract();
    void agreesOnAllShortPairs();
    void agreesOnRandomLongPairs();
};

void tst_Wildcard::contract_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("wildcard");
    QTest::addColumn<bool>("expected");
    const auto rows = [](bool expected, const QStringList &pairs) {
        for (const QString &pair : pairs) {
            const QStringList parts = pair.split(QLatin1Char(' '));
            QTest::newRow(qPrintable(pair)) << parts.at(0) << parts.at(1) << expected;
        }
    };
    rows(true, QStringLiteral("a.b.c a.b.c|a.b.c *|a.b a.+|a.b.c +.b.c|a.b.c a.*|x.a.b *.a.*|"
                              "a.b *.*|a..b a..*|*.c *.c|+ +|"
                              // only the first "+." and the last ".+" are looked at
                              "x.a+.b +.a+.b|a.+b.x a.+b.+|"
                              // a star is known by the character, not by the segment
                              "x.xa*y +.a*|x.*a.b *a.+.b|"
                              // "+" between a leading star and its anchor counts for nothing
                              "c.x.y.z *.+.c.*")
                   .split(QLatin1Char('|')));
    rows(false, QStringLiteral("a.b.c a.b|a.b.c a.+|a.b.c a.+.c|a a.*|a.b.c *.c|a.b a.b*| *| |a |"
                               "a.b *.a.*|a +|a.B a.b|a.B +.b|a.b .+|a.b +.|a.b a+.b|a.b.c a.+b.c|"
                               "a.b.c a.*.c|a *.*|a..b a.+.b|"
                               // the first "a" is the anchor, and nothing else is tried
                               "a.x.a.b *.a.b.*")
                    .split(QLatin1Char('|')));
}

void tst_Wildcard::contract()
{
    QFETCH(QString, name);
    QFETCH(QString, wildcard);
    QFETCH(bool, expected);
    QCOMPARE(TrelanObject::testWildCard(name, wildcard), expected);
    QCOMPARE(reference::matches(name, wildcard), expected);
}

#define AGREE(name, wildcard)                                                                      \
    if (TrelanObject::testWildCard(name, wildcard) != reference::matches(name, wildcard))          \
    QFAIL(qPrintable(QStringLiteral("name \"%1\", wildcard \"%2\"").arg(name, wildcard)))

void tst_Wildcard::agreesOnAllShortPairs()
{
    QStringList texts {QString()};
    for (int i = 0; texts.at(i).size() < 4; ++i) {
        for (const char c : {'a', 'b', '.', '+', '*'})
            texts << texts.at(i) + QLatin1Char(c);
    }
    QCOMPARE(texts.size(), 781);
    for (const QString &name : qAsConst(texts)) {
        for (const QString &wildcard : qAsConst(texts))
            AGREE(name, wildcard);
    }
}

void tst_Wildcard::agreesOnRandomLongPairs()
{
    std::mt19937 random(20240607);
    const auto upTo = [&random](int most) { return int(random() % quint32(most + 1)); };
    const QStringList literals =
        QStringLiteral("a|b|c|ab|ba|a*|+a|*a|a+||").split(QLatin1Char('|'));
    const QStringList wild {QStringLiteral("+"), QStringLiteral("*")};

    int matched = 0;
    const int rounds = 250000;
    for (int round = 0; round < rounds; ++round) {
        // The wildcard is made from the name, since unrelated ones hardly ever match.
        QStringList segments;
        for (int count = 1 + upTo(7); count > 0; --count)
            segments << literals.at(upTo(upTo(3) > 0 ? 2 : literals.size() - 1));
        const QString name = segments.join(QLatin1Char('.'));
        for (int edits = upTo(3); edits > 0 && !segments.isEmpty(); --edits) {
            const int at = upTo(segments.size() - 1);
            segments[at] = upTo(4) > 0 ? wild.at(upTo(1)) : literals.at(upTo(literals.size() - 1));
        }
        if (upTo(1) > 0)
            segments = segments.mid(upTo(2)) << wild.at(1);
        if (upTo(2) == 0)
            segments.prepend(wild.at(upTo(1)));
        QString wildcard = segments.join(QLatin1Char('.'));
        if (upTo(7) == 0)
            wildcard.remove(upTo(wildcard.size()), 1);
        AGREE(name, wildcard);
        matched += reference::matches(name, wildcard) ? 1 : 0;
    }
    QVERIFY2(matched > rounds / 10 && matched < rounds * 9 / 10,
             qPrintable(QString::number(matched)));
}

QTEST_APPLESS_MAIN(tst_Wildcard)
#include "tst_wildcard.moc"
