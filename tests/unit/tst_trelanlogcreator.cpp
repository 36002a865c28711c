#include <trelanlogcreator.h>

#include <QtTest/QtTest>

using namespace bus;
using Creator = TrelanLogCreator;

class tst_TrelanLogCreator : public QObject
{
    Q_OBJECT

    QString _sent;

    void init(int interval, const QByteArray &method = SLOT(take(TrelanMessage)))
    {
        _sent.clear();
        Creator::init(this, method, "me", interval);
    }
    static void log(QtMsgType type, const char *text) { Creator::humanKelLog(type, {}, text); }

public Q_SLOTS: // not a test
    void take(TrelanMessage m)
    {
        const QJsonValue call = QJsonDocument::fromJson(m.message().toUtf8())["__cmd__"];
        _sent += m.sender() + m.reciever() + call[QLatin1String("__name__")].toString();
        for (const char *param : {"prefix", "text"})
            _sent += call[QLatin1String("__params__")][QLatin1String(param)].toString();
        _sent += '|';
    }

private Q_SLOTS:
    void cleanup() { Creator::release(); }

    void sendsLines()
    {
        init(1000); // so that repeated ones are sent too
        log(QtDebugMsg, "a");
        log(QtDebugMsg, "a");
        log(QtWarningMsg, "b\r\nc\nd\re");
        log(QtFatalMsg, "f");
        QCOMPARE(_sent, "meloggersaveLogINFOa|meloggersaveLogINFOa|"
                        "meloggersaveLogWARNINGb\tc\td\te|meloggersaveLogERRORf|");
        Creator::release();
        log(QtInfoMsg, "g");
        QVERIFY(_sent.endsWith("f|") && !Creator::createCreator());
    }

    void holdsBackRepeatedLines()
    {
        init(1001);
        const auto passes = [](const char *line = "a") { return Creator::checkMessage(line); };
        QVERIFY(passes("") && !passes("")); // the first line passes, even this one
        QVERIFY(passes() && !passes());
        for (const int least : {901, 1290}) { // the second is 1.3 times the interval, cut
            QElapsedTimer timer;
            timer.start();
            QVERIFY(QTest::qWaitFor([=] { return passes(); }));
            QVERIFY(timer.elapsed() >= least);
        }
        init(1001); // forgets
        QVERIFY(passes());
    }

    void wrongMethodNeitherDeadlocksNorRecurses()
    {
        init(0, "1noSuchSlot()");
        const QtMessageHandler before = qInstallMessageHandler(Creator::humanKelLog);
        delete Creator::createCreator(); // about which Qt has something to say
        qInstallMessageHandler(before);
        init(0);
        log(QtInfoMsg, "b");
        QVERIFY(_sent.endsWith("INFOb|"));
    }
};

QTEST_GUILESS_MAIN(tst_TrelanLogCreator)
#include "tst_trelanlogcreator.moc"
