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
        Creator::init(this, method, QStringLiteral("me"), interval);
    }
    static void log(QtMsgType type, const char *text)
    {
        Creator::humanKelLog(type, {}, QString::fromLatin1(text));
    }

public Q_SLOTS: // not a test
    void take(TrelanMessage m)
    {
        const QVariantMap call = QJsonDocument::fromJson(m.message().toUtf8())
                                     .toVariant()
                                     .toMap()[QStringLiteral("__cmd__")]
                                     .toMap();
        const QVariantMap params = call[QStringLiteral("__params__")].toMap();
        _sent += m.sender() + m.reciever() + call[QStringLiteral("__name__")].toString() +
                 params[QStringLiteral("prefix")].toString() +
                 params[QStringLiteral("text")].toString() + QLatin1Char('|');
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
        QCOMPARE(_sent, QStringLiteral("meloggersaveLogINFOa|meloggersaveLogINFOa|"
                                       "meloggersaveLogWARNINGb\tc\td\te|meloggersaveLogERRORf|"));
        Creator::release();
        log(QtInfoMsg, "g");
        QVERIFY(_sent.endsWith(QLatin1String("f|")) && !Creator::createCreator());
    }

    void holdsBackRepeatedLines()
    {
        init(1001);
        QVERIFY(Creator::checkMessage({})); // the first line passes, even this one
        QVERIFY(!Creator::checkMessage({}));
        QVERIFY(Creator::checkMessage(QStringLiteral("a")));
        QVERIFY(!Creator::checkMessage(QStringLiteral("a")));
        QElapsedTimer timer;
        timer.start();
        QVERIFY(QTest::qWaitFor([] { return Creator::checkMessage(QStringLiteral("a")); }));
        QVERIFY(timer.elapsed() > 900);
        timer.start();
        QVERIFY(QTest::qWaitFor([] { return Creator::checkMessage(QStringLiteral("a")); }));
        QVERIFY(timer.elapsed() >= 1290); // 1.3 times the interval, cut
        init(1001);                       // forgets
        QVERIFY(Creator::checkMessage(QStringLiteral("a")));
    }

    void wrongMethodNeitherDeadlocksNorRecurses()
    {
        init(0, "1noSuchSlot()");
        const QtMessageHandler before = qInstallMessageHandler(Creator::humanKelLog);
        delete Creator::createCreator(); // about which Qt has something to say
        qInstallMessageHandler(before);
        init(0);
        log(QtInfoMsg, "b");
        QVERIFY(_sent.endsWith(QLatin1String("INFOb|")));
    }
};

QTEST_GUILESS_MAIN(tst_TrelanLogCreator)
#include "tst_trelanlogcreator.moc"
