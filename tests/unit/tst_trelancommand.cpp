#include "testsupport.h"

#include <trelancommand.h>
#include <trelanmessage.h>
#include <trelanobject.h>

using namespace bus;

class tst_TrelanCommand : public QObject
{
    Q_OBJECT
    TrelanCommand _command;

private slots:
    void init()
    {
        _command = TrelanCommand();
        _command.setName("reboot");
        _command.setParams({{"delay", 5}});
        _command.setSender("A");
        _command.setReciever("box");
    }

    void comparisonAndFlags()
    {
        _command.setReciever({});
        TrelanCommand other = _command;
        other.setIsLogged(true);
        QCOMPARE(other, _command); // the flag tells how a call is treated, not which call it is
        other.setNeedAnswer(true);
        QVERIFY(!other.needAnswer()); // the flag is there, but without a receiver nobody can answer
        QVERIFY(other != _command);
        other.setReciever("box");
        QVERIFY(other.needAnswer());
    }

    void conversionFillsTheUidOnce()
    {
        QVERIFY(makesUidOf(_command, "TrelanCommandAboxreboot", R"({"delay":5})"));
        const QDateTime before = QDateTime::currentDateTime();
        TrelanMessage message;
        QVERIFY(_command.toTrelanMessage(message));
        QVERIFY(message.uid().size() == 28 && message.dt() >= before);
        QVERIFY(!_command.dt().isValid());                  // the command does not keep the time
        QTRY_VERIFY(QDateTime::currentDateTime() > before); // a second id would differ
        QCOMPARE(_command.toVariant().toMap()["uid"].toString(), _command.uid());
        QCOMPARE(_command.uid(), message.uid());
    }

    void wireForms()
    {
        const auto wire = [this] {
            return QJsonDocument::fromVariant(_command.toVariant()).toJson(QJsonDocument::Compact);
        };
        _command.setUid("U");
        _command.setDt(QDateTime::fromMSecsSinceEpoch(7));
        _command.setNeedAnswer(true);
        QCOMPARE(wire().replace("\\\"", "'"),
                 QByteArray(R"({"dt":"7","msg":"{'__cmd__':{'__name__':'reboot','__params__':)"
                            R"({'delay':5}}}","ops":6,"r":"box","s":"A","uid":"U"})"));
        _command.setReciever({});
        QCOMPARE(wire(), QByteArray(R"({"cnt":{"delay":5},"dt":"7","nm":"__bus__.__cmd__.reboot",)"
                                    R"("opt":0,"p":"","uid":"U"})"));
        TrelanMessage message;
        message.setUid("old");
        QVERIFY(!_command.toTrelanMessage(message) && message.uid().isEmpty());
        QVERIFY(message.dt() != _command.dt());
    }

    void answers()
    {
        _command.setParentUid("P");
        _command.setIsLogged(true);
        TrelanMessage message;
        QVERIFY(_command.toTrelanMessage(message));
        QVERIFY(message.message().endsWith(QStringLiteral(R"(:{"delay":5},"__parent__":"P"}})")));
        QCOMPARE(int(message.options()), 3);
        TrelanObject object;
        QTest::ignoreMessage(QtWarningMsg, "SYNC ANSWER MUST BE A MESSAGE");
        QVERIFY(_command.toTrelanObject(object));
        QVERIFY(object.publisher() == "box" && int(object.options()) == 1);
    }
};

QTEST_APPLESS_MAIN(tst_TrelanCommand)
#include "tst_trelancommand.moc"
