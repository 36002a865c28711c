#include <testtable.h>
#include <trelanlogcreator.h>

#include <sys/time.h>

using namespace bus;
using Creator = TrelanLogCreator;

namespace
{

qint64 _now = 0; // milliseconds since the epoch, as this program reads its clock

} // namespace

/// Stands for the system's function, which Qt asks for the time: intervals of minutes then pass
/// without waiting.
extern "C" Q_DECL_EXPORT int gettimeofday(timeval *time, void *) noexcept
{
    *time = {_now / 1000, _now % 1000 * 1000};
    return 0;
}

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
        init(1000); // an interval that sends repeated lines too
        log(QtDebugMsg, "a");
        log(QtDebugMsg, "a");
        log(QtWarningMsg, "b\r\nc\nd\re");
        log(QtFatalMsg, "f");
        QCOMPARE(_sent, "meloggersaveLogINFOa|meloggersaveLogINFOa|"
                        "meloggersaveLogWARNINGb\tc\td\te|meloggersaveLogERRORf|");
        const QString sent = _sent;
        Creator::release();
        log(QtInfoMsg, "no init");
        Creator::init(nullptr, SLOT(take(TrelanMessage)), "me", 0);
        log(QtInfoMsg, "no receiver");
        Creator::init(this, {}, "me", 0);
        log(QtInfoMsg, "no method");
        Creator::init(this, SLOT(take(TrelanMessage)), "", 0);
        log(QtInfoMsg, "no name");
        QVERIFY(!Creator::createCreator());
        QCOMPARE(_sent, sent);
    }

    void holdsBackRepeatedLines_data()
    {
        const TestTable<int, QList<int>> row("interval", "pauses");
        row("every line is sent", 1000, {0, 0});
        row("shortest interval", 1001, {1001, 1301});
        row("the interval grows", 5000, {5000, 6500, 8450, 10985, 14280});
        row("up to five minutes", 250000, {250000, 300000, 300000});
        row("not even at first above five minutes", 600000, {300000, 300000});
    }
    void holdsBackRepeatedLines()
    {
        QFETCH(int, interval);
        QFETCH(QList<int>, pauses);
        const auto passes = [](const char *line) { return Creator::checkMessage(line); };
        _now = QDate(2021, 6, 1).startOfDay().toMSecsSinceEpoch() - 1; // midnight is passed
        init(interval);
        QVERIFY(passes("a"));
        for (const int pause : pauses) {
            _now += pause - 1;
            QVERIFY(pause == 0 || !passes("a"));
            _now += 1;
            QVERIFY(passes("a"));
        }
        QVERIFY(passes("b"));
        _now += pauses[0]; // another text starts with the first interval
        QVERIFY(passes("b"));
        init(interval); // forgets the line
        QVERIFY(passes("b"));
        _now += pauses[0];
        QVERIFY(passes("b"));
        init(interval);
        QVERIFY(passes("")); // the first line is no repeated one, even if it is empty
        Creator::release();  // holds nothing back any more
        QVERIFY(passes(""));
    }

    void wrongMethodNeitherDeadlocksNorRecurses()
    {
        init(0, "1noSuchSlot()");
        const QtMessageHandler before = qInstallMessageHandler(Creator::humanKelLog);
        delete Creator::createCreator(); // Qt logs that there is no such slot
        qInstallMessageHandler(before);
        init(0);
        log(QtInfoMsg, "b");
        QVERIFY(_sent.endsWith("INFOb|"));
    }
};

QTEST_GUILESS_MAIN(tst_TrelanLogCreator)
#include "tst_trelanlogcreator.moc"
