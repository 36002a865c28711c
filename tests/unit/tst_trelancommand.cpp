#include "uidcheck.h"

#include <trelancommand.h>
#include <trelanmessage.h>
#include <trelanobject.h>

#include <QtTest/QtTest>

using bus::TrelanCommand;
using bus::TrelanMessage;
using bus::TrelanObject;

namespace
{

TrelanCommand reboot(const QString &reciever)
{
    TrelanCommand command;
    command.setName(QStringLiteral("reboot"));
    command.setParams({{QStringLiteral("delay"), 5}});
    command.setSender(QStringLiteral("A"));
    command.setReciever(reciever);
    return command;
}

const QString BOX = QStringLiteral("box");

} // namespace

class tst_TrelanCommand : public QObject
{
    Q_OBJECT

private slots:
    void answersNeedADestination()
    {
        TrelanCommand command;
        command.setNeedAnswer(true);
        QVERIFY(!command.needAnswer());
        QVERIFY(command != TrelanCommand());
        command.setReciever(BOX);
        QVERIFY(command.needAnswer());
    }

    void comparisonLeavesTheLogFlagOut()
    {
        TrelanCommand logged = reboot(BOX);
        logged.setIsLogged(true);
        QCOMPARE(logged, reboot(BOX));
        TrelanCommand answer = reboot(BOX);
        answer.setParentUid(QStringLiteral("P"));
        QVERIFY(answer != reboot(BOX));
    }

    void uidIsMadeOfTheFields()
    {
        const qint64 since = QDateTime::currentMSecsSinceEpoch();
        TrelanCommand command = reboot(BOX); // its invalid time is an empty text
        QVERIFY(isUidOf(command.genUid(), "TrelanCommandAboxreboot", R"({"delay":5})", since));
        command.setDt(QDateTime::fromMSecsSinceEpoch(0, Qt::UTC));
        QVERIFY(isUidOf(command.genUid(), "TrelanCommandAbox1970-01-01T00:00:00Zreboot",
                        R"({"delay":5})", since));
    }

    void conversionFillsTheUidOnce()
    {
        const TrelanCommand command = reboot(BOX);
        const QDateTime before = QDateTime::currentDateTime();
        TrelanMessage message;
        QVERIFY(command.toTrelanMessage(message));
        QCOMPARE(command.uid().size(), 28);
        QCOMPARE(message.uid(), command.uid());
        QVERIFY(message.dt() >= before);
        QVERIFY(!command.dt().isValid());                   // and the time is not remembered
        QTRY_VERIFY(QDateTime::currentDateTime() > before); // a second id would be another one
        TrelanObject object;
        QVERIFY(command.toTrelanObject(object));
        QCOMPARE(object.uid(), message.uid());
    }

    void message()
    {
        TrelanCommand command = reboot(BOX);
        command.setNeedAnswer(true);
        command.setDt(QDateTime::fromMSecsSinceEpoch(7));
        TrelanMessage message;
        QVERIFY(command.toTrelanMessage(message));
        QCOMPARE(message.message(),
                 QStringLiteral(R"({"__cmd__":{"__name__":"reboot","__params__":{"delay":5}}})"));
        QCOMPARE(int(message.options()), 6);
        QCOMPARE(message.dt(), command.dt());
        QCOMPARE(message.msgKey(), QStringLiteral("A.box.") + command.uid());
        QCOMPARE(command.toVariant().toMap(), message.toVariantMap());

        command.setParentUid(QStringLiteral("P"));
        command.setIsLogged(true);
        QVERIFY(command.toTrelanMessage(message));
        QCOMPARE(message.message(),
                 QStringLiteral(R"({"__cmd__":{"__name__":"reboot",)"
                                R"("__params__":{"delay":5},"__parent__":"P"}})"));
        QCOMPARE(int(message.options()), 7);
    }

    void noMessageWithoutReceiver()
    {
        const TrelanCommand command = reboot({});
        TrelanMessage message;
        message.setUid(QStringLiteral("old"));
        QVERIFY(!command.toTrelanMessage(message));
        QVERIFY(message.uid().isEmpty());
        QVERIFY(command.uid().isEmpty());
    }

    void object()
    {
        TrelanCommand command = reboot({});
        command.setIsLogged(true);
        const TrelanObject object = TrelanObject::fromVariantMap(command.toVariant().toMap());
        QCOMPARE(object.name(), QStringLiteral("__bus__.__cmd__.reboot"));
        QCOMPARE(int(object.options()), 1);
        QCOMPARE(object.publisher(), QString());
        QCOMPARE(object.content().value(QStringLiteral("delay")).toInt(), 5);
        QCOMPARE(object.uid(), command.uid());
    }

    void answerToEverybodyIsWarnedOf()
    {
        TrelanCommand command = reboot(BOX);
        command.setParentUid(QStringLiteral("P"));
        TrelanObject object;
        QTest::ignoreMessage(QtWarningMsg, "SYNC ANSWER MUST BE A MESSAGE");
        QVERIFY(command.toTrelanObject(object));
        QCOMPARE(object.publisher(), BOX); // the receiver's name, as it always was
    }
};

QTEST_APPLESS_MAIN(tst_TrelanCommand)
#include "tst_trelancommand.moc"
