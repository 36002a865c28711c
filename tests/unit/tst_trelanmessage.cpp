#include "uidcheck.h"

#include <trelanmessage.h>

#include <QtTest/QtTest>

using bus::TrelanMessage;

namespace
{

TrelanMessage sample()
{
    TrelanMessage message;
    message.setSender(QStringLiteral("A"));
    message.setReciever(QStringLiteral("B"));
    message.setMessage(QStringLiteral("t\u00e4xt"));
    message.setUid(QStringLiteral("U"));
    message.setDt(QDateTime::fromMSecsSinceEpoch(1700000000123, Qt::UTC));
    message.setOptions(TrelanMessage::Options(QFlag(0x107)));
    return message;
}

} // namespace

class tst_TrelanMessage : public QObject
{
    Q_OBJECT

private slots:
    void flagsTouchTheirOwnBitOnly()
    {
        QCOMPARE(int(TrelanMessage().options()), 0);
        TrelanMessage message = sample();
        message.setStored(false);
        QCOMPARE(int(message.options()), 0x105);
        message.setLogged(false);
        QCOMPARE(int(message.options()), 0x104);
        message.setNeedAnswer(false);
        QCOMPARE(int(message.options()), 0x100);
        message.setStored(true);
        QCOMPARE(int(message.options()), 0x102);
    }

    void everyFieldCountsInComparison()
    {
        QVector<TrelanMessage> others(6, sample());
        others[0].setSender({});
        others[1].setReciever({});
        others[2].setMessage({});
        others[3].setUid({});
        others[4].setDt(sample().dt().addMSecs(1));
        others[5].setOptions({});
        for (const TrelanMessage &other : qAsConst(others))
            QVERIFY(other != sample());
    }

    void uidIsMadeOfTheFields()
    {
        const qint64 since = QDateTime::currentMSecsSinceEpoch();
        const QString uid = sample().genUid();
        QVERIFY(isUidOf(uid, "TrelanMessageABt\xc3\xa4xt2023-11-14T22:13:20Z263", "", since));
    }

    void key()
    {
        QCOMPARE(sample().msgKey(), QStringLiteral("A.B.U"));
        // Filled one after the other: a place mark inside a value is filled by the next one.
        TrelanMessage message = sample();
        message.setSender(QStringLiteral("%2"));
        QCOMPARE(message.msgKey(), QStringLiteral("B.B.U"));
        message = TrelanMessage();
        message.setUid(QStringLiteral("U"));
        QCOMPARE(message.msgKey(), QStringLiteral("..U"));
    }

    void wireForm()
    {
        const QByteArray json =
            QJsonDocument::fromVariant(sample().toVariantMap()).toJson(QJsonDocument::Compact);
        QCOMPARE(json, QByteArray("{\"dt\":\"1700000000123\",\"msg\":\"t\xc3\xa4xt\",\"ops\":263,"
                                  "\"r\":\"B\",\"s\":\"A\",\"uid\":\"U\"}"));
        const QVariantMap map = QJsonDocument::fromJson(json).object().toVariantMap();
        QCOMPARE(TrelanMessage::fromVariantMap(map), sample());

        TrelanMessage expected;
        expected.setDt(QDateTime::fromMSecsSinceEpoch(0));
        QCOMPARE(TrelanMessage::fromVariantMap({}), expected);
    }
};

QTEST_APPLESS_MAIN(tst_TrelanMessage)
#include "tst_trelanmessage.moc"
