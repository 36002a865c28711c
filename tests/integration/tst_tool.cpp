#include <testtable.h>
#include <trelanbus.h>

#include <QtCore/QProcess>

/// Runs \a line, its words separated by blanks, and returns "exit code|output|errors".
static QString runTool(const QByteArray &line, quint16 port, const QByteArray &input = QByteArray())
{
    QProcess process;
    process.start("/bin/sh", {"-c", QStringLiteral("'" TRELANCTL "' --query-port %1 %2")
                                        .arg(port)
                                        .arg(QString::fromLatin1(line))});
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(); // what does not finish in 30 s has no exit code 0 to 3
    return QString("%1|%2|%3")
        .arg(process.state() == QProcess::NotRunning ? process.exitCode() : -1)
        .arg(QString::fromUtf8(process.readAllStandardOutput().trimmed()),
             QString::fromUtf8(process.readAllStandardError().trimmed()));
}

/// The built tool against a real bus, as a person or a script would run it.
class tst_Tool : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        bus::TrelanBusSettings settings;
        settings.queryPort = settings.msgPort = 0;
        QVERIFY2(_bus.start(settings), qPrintable(_bus.errorString()));
        for (const char *line : {"pub k.ls n=1 s=x --logged --name me", "pub 'k.[a]' '{\"a\":[1]}'",
                                 "pub k.per - --permanent", "pub gone.a x=1", "pub gone.b x=1",
                                 "pub passed.on x=1 --not-stored", "rm gone.a ' gone.b' never.was"})
            QCOMPARE(runTool(line, _bus.queryPort(), R"({"from":"std\u009bin"})"), "0||");
    }

    void run_data()
    {
        const TestTable<QByteArray, QByteArray> row("pattern", "input");
        const QByteArray good = "[-REPLY-]\r\n40\r\nAAAAEXicq1bKL0gtSizJzM9TslKqUKoFADjzBgQ=";
        row("ls 'k.*'",
            R"(0\|NAME +PUBLISHER .*\nk\.\[a\] .*\nk\.ls +me .*stored,logged .*permanent .*\|)",
            "");
        row("ls k.+ --json",
            R"(0\|\{.*\}\n\{.*\}\n\{"content":\{"from":"std\\u009bin"\},.*"time":"\S{19}\.\d{3}Z".*\}\|)",
            "");
        row("ls >/dev/full", R"(1\|\|trelanctl: cannot write the output: .*)", "");
        row("ls >&-", R"(1\|\|trelanctl: cannot write the output: .*)", "");
        row("ls | :", R"(0\|\|)", ""); // the reader has gone: no fault, no word
        row("ls", R"(0\|(?!.*(gone|passed)).*\|)", "");
        row("--json get k.ls",
            R"(0\|\{"content":\{"n":1,"s":"x"\},"logged":true,"name":"k.ls".*\}\|)", "");
        row("get gone.a", R"(1\|\|trelanctl: refused by the bus: 2 [^\n]*"gone\.a")", "");
        row("pub a..b x=1", R"(1\|\|trelanctl: refused by the bus: 2 [^\n]*empty segment)", "");
        row("ls --name ''", R"(1\|\|trelanctl: refused by the bus: 3 [^\n]*)", "");
        row("pub a..b x=1 --verbose",
            R"(1\|\|trelanctl: 2 .*\ntrelanctl: refused by the bus: 2 .*)", "");
        row("match ls '[ls]'", R"(1\|no match\|)", "");
        row("match ++ ++", R"(0\|match\|)", "");
        row("frame", R"(1\|.*"operation": "x".*\|.*frame 2 \(reply.*no JSON.*frame 4: .*\\u001b.*)",
            good + "[-REPLY-]\r\n20\r\nAAAAAXicqwYAAHwAfA==" + good + "\x1b[2J nonsense\r\n");
        row("frame --json", R"(0\|\{"envelope":\{"operation":"x"\},"kind":"reply","size":\d+\}\|)",
            good + "\n");
        row("frame  ", R"(1\|.*\|trelanctl: frame 2: the input ends .*)", good + good.chopped(1));
        row("frame   ", R"(1\|\|.*frame 1: the input ends .*)", "[-REPLY-]\r\n2000000000\r\nx");
        row("--version", R"(0\|trelanctl 1\..*\|)", "");
        for (const char *line :
             {"''", "nonsense", "ls a b", "get", "pub a", "pub a x", "pub a '{x}'",
              "pub a x=1 --permanent --not-stored", "ls --query-port 65536", "ls --host ::1",
              "get \"$(printf '\\377')\""})
            row(line, R"(2\|\|trelanctl: [^\n]+)", "");
        row("pub a - ", R"(2\|\|trelanctl: [^\n]*no JSON object[^\n]*)", "{");
    }

    void run()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, pattern);
        const QString result = runTool(QTest::currentDataTag(), _bus.queryPort(), input);
        const QRegularExpression expected(QString::fromLatin1("(?s)\\A" + pattern + "\\z"));
        QVERIFY2(expected.match(result).hasMatch(), qPrintable(result));
    }

    void noBus()
    {
        const quint16 port = _bus.queryPort();
        _bus.stop();
        const QString result = runTool("ls", port);
        QVERIFY2(result.startsWith(QString("3||trelanctl: no bus at 127.0.0.1:%1").arg(port)),
                 qPrintable(result));
    }

private:
    bus::TrelanBus _bus;
};

QTEST_GUILESS_MAIN(tst_Tool)
#include "tst_tool.moc"
