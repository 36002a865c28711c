#include "uidcheck.h"

#include <trelanmessage.h>
#include <trelanobject.h>

#include <QtTest/QtTest>

#include <utility>

using bus::TrelanMessage;
using bus::TrelanObject;

namespace
{

const qint64 TIME = 1700000000123;

TrelanObject sample()
{
    TrelanObject object;
    object.setPublisher(QStringLiteral("box"));
    object.setName(QStringLiteral("a.b"));
    object.setDt(QDateTime::fromMSecsSinceEpoch(TIME, Qt::UTC));
    object.setContent({{QStringLiteral("k"), 1}});
    object.setUid(QStringLiteral("u"));
    object.setPermanent(true);
    return object;
}

} // namespace

class tst_TrelanObject : public QObject
{
    Q_OBJECT

private slots:
    void defaults()
    {
        const QDateTime before = QDateTime::currentDateTime();
        const TrelanObject object;
        QVERIFY(object.dt() >= before && object.dt() <= QDateTime::currentDateTime());
        QCOMPARE(object.dt().timeSpec(), Qt::LocalTime);
        QCOMPARE(int(object.options()), 2);
        QVERIFY(object.uid().isEmpty());
    }

    void flags_data()
    {
        QTest::addColumn<int>("before");
        QTest::addColumn<QByteArray>("change");
        QTest::addColumn<bool>("on");
        QTest::addColumn<int>("after");
        QTest::newRow("permanent is stored") << 0 << QByteArray("p") << true << 6;
        QTest::newRow("permanent off stays stored") << 6 << QByteArray("p") << false << 2;
        QTest::newRow("stored off drops both") << 7 << QByteArray("s") << false << 1;
        QTest::newRow("stored on sets one") << 1 << QByteArray("s") << true << 3;
        QTest::newRow("logged off") << 7 << QByteArray("l") << false << 6;
        QTest::newRow("unknown bits stay") << 0x40000017 << QByteArray("s") << false << 0x40000011;
    }

    void flags()
    {
        QFETCH(int, before);
        QFETCH(QByteArray, change);
        QFETCH(bool, on);
        TrelanObject object;
        object.setOptions(TrelanObject::Options(QFlag(before)));
        if (change == "p")
            object.setPermanent(on);
        else if (change == "s")
            object.setStored(on);
        else
            object.setLogged(on);
        QTEST(int(object.options()), "after");
    }

    void permanentNeedsBothBits()
    {
        TrelanObject object;
        object.setOptions(TrelanObject::Permanent);
        QVERIFY(!object.isPermanent());
    }

    void moveAssignmentSwapsAllButTheFlags()
    {
        TrelanObject target;
        target.setUid(QStringLiteral("old"));
        target.setOptions({});
        const TrelanObject old = target;
        TrelanObject source = sample();
        target = std::move(source);
        QCOMPARE(target, sample());
        TrelanObject swapped = old;
        swapped.setOptions(sample().options());
        QCOMPARE(source, swapped); // NOLINT(bugprone-use-after-move)
    }

    void everyFieldCountsInComparison()
    {
        QVector<TrelanObject> others(6, sample());
        others[0].setPublisher({});
        others[1].setName({});
        others[2].setDt(QDateTime::fromMSecsSinceEpoch(TIME + 1));
        others[3].setContent({});
        others[4].setUid({});
        others[5].setLogged(true);
        for (const TrelanObject &other : qAsConst(others))
            QVERIFY(other != sample());
    }

    void uidIsMadeOfTheFields()
    {
        const qint64 since = QDateTime::currentMSecsSinceEpoch();
        const QString uid = sample().genUid();
        QVERIFY(isUidOf(uid, "TrelanObjectboxa.b2023-11-14T22:13:20Z6", R"({"k":1})", since));
    }

    void wireForm()
    {
        TrelanObject object = sample();
        object.setOptions(TrelanObject::Options(QFlag(0x105)));
        const QVariantMap map = object.toVariantMap();
        const QByteArray json = QJsonDocument::fromVariant(map).toJson(QJsonDocument::Compact);
        QCOMPARE(json, QByteArray(R"({"cnt":{"k":1},"dt":"1700000000123","nm":"a.b","opt":261,)"
                                  R"("p":"box","uid":"u"})"));
        const TrelanObject read =
            TrelanObject::fromVariantMap(QJsonDocument::fromJson(json).object().toVariantMap());
        QCOMPARE(read, object);
        QCOMPARE(read.dt().timeSpec(), Qt::LocalTime);
    }

    void absentEntriesAreEmptyNotDefault()
    {
        TrelanObject expected;
        expected.setOptions({});
        expected.setDt(QDateTime::fromMSecsSinceEpoch(0));
        QCOMPARE(TrelanObject::fromVariantMap({}), expected);
    }

    void timeIsReadThroughItsText_data()
    {
        QTest::addColumn<QVariant>("wire");
        QTest::addColumn<qint64>("expected");
        QTest::newRow("text") << QVariant(QStringLiteral("1700000000123")) << TIME;
        QTest::newRow("number") << QVariant(TIME) << TIME;
        QTest::newRow("before the epoch") << QVariant(QStringLiteral("-5")) << qint64(-5);
        QTest::newRow("fraction") << QVariant(1234.5) << qint64(0);
        QTest::newRow("true") << QVariant(true) << qint64(0);
        QTest::newRow("hexadecimal") << QVariant(QStringLiteral("0x10")) << qint64(0);
    }

    void timeIsReadThroughItsText()
    {
        QFETCH(QVariant, wire);
        QFETCH(qint64, expected);
        const QVariantMap map {{QStringLiteral("dt"), wire}};
        QCOMPARE(TrelanObject::fromVariantMap(map).dt().toMSecsSinceEpoch(), expected);
        QCOMPARE(TrelanMessage::fromVariantMap(map).dt().toMSecsSinceEpoch(), expected);
    }

    void notification()
    {
        TrelanObject object = sample();
        object.setContent({});
        const TrelanMessage message = object.toMessage(QStringLiteral("ui"));
        const QByteArray expected = "{\n    \"__context__\": {\n    },\n"
                                    "    \"__name__\": \"a.b\",\n    \"__reason__\": \"sub\"\n}\n";
        QCOMPARE(message.message().toUtf8(), expected);
        QCOMPARE(message.dt(), object.dt());
        QCOMPARE(int(message.options()), 0);
        QCOMPARE(message.msgKey(), QStringLiteral("box.ui.u"));
    }
};

QTEST_APPLESS_MAIN(tst_TrelanObject)
#include "tst_trelanobject.moc"
