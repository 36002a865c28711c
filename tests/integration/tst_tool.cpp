#include <testtable.h>
#include <trelanbus.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QProcess>

#include <array>
#include <csignal>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/// Sets a process up to run the tool with \a line, in a shell.
static QStringList shellWords(const QByteArray &line, const bus::TrelanBusSettings &bus)
{
    return {"-c", QStringLiteral("exec '" TRELANCTL "' --query-port %1 --msg-port %2 %3")
                      .arg(bus.queryPort())
                      .arg(bus.msgPort())
                      .arg(QString::fromUtf8(line))};
}

/// Runs \a line to its end and returns "exit code|output|errors".
static QString runTool(const QByteArray &line, const bus::TrelanBusSettings &bus,
                       const QByteArray &input = QByteArray())
{
    QProcess process;
    process.start("/bin/sh", shellWords(line, bus));
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(); // after 30 s in vain the exit code is none of 0 to 3
    return QString("%1|%2|%3")
        .arg(process.state() == QProcess::NotRunning ? process.exitCode() : -1)
        .arg(QString::fromUtf8(process.readAllStandardOutput().trimmed()),
             QString::fromUtf8(process.readAllStandardError().trimmed()));
}

/// The tool while it runs, with everything that it has printed so far.
class RunningTool : public QProcess
{
public:
    RunningTool(const QByteArray &line, const bus::TrelanBusSettings &bus)
    {
        connect(this, &QProcess::readyReadStandardOutput, this,
                [this] { out += readAllStandardOutput(); });
        connect(this, &QProcess::readyReadStandardError, this,
                [this] { err += readAllStandardError(); });
        start("/bin/sh", shellWords(line, bus));
    }
    ~RunningTool() override
    {
        kill();
        waitForFinished();
    }
    /// Sends \a signal and returns the exit code; -1 if the tool does not end by itself.
    int end(int signal)
    {
        if (processId() == 0) // it has ended: 0 would be every process of this test's group
            return -1;
        ::kill(pid_t(processId()), signal);
        return waitForFinished() && exitStatus() == NormalExit ? exitCode() : -1;
    }
    QByteArray out;
    QByteArray err;
};

// A channel comes back within 5 s; a busy machine takes longer.
#define AWAIT(state) QTRY_VERIFY_WITH_TIMEOUT(state, 20000)

/// The built tool against a real bus, as a person or a script would run it.
class tst_Tool : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        _at.setQueryPort(0);
        _at.setMsgPort(0);
        QVERIFY2(_bus.start(_at), qPrintable(_bus.errorString()));
        _at.setQueryPort(_bus.queryPort());
        _at.setMsgPort(_bus.msgPort());
        for (const char *line : {"pub k.ls n=1 s=x --logged --name me", "pub 'k.[a]' '{\"a\":[1]}'",
                                 "pub k.per - --permanent", "pub gone.a x=1", "pub gone.b x=1",
                                 "pub passed.on x=1 --not-stored", "rm gone.a ' gone.b' never.was"})
            QCOMPARE(runTool(line, _at, R"({"from":"std\u009bin"})"), "0||");
    }

    /// Ends the bus: its thread must not log while the program, and the log with it, ends.
    void cleanupTestCase() { _bus.stop(); }

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
        row("ls | :", R"(0\|\|)", ""); // a reader that has gone is no fault, and no reason to print
        row("ls", R"(0\|(?!.*(gone|passed)).*\|)", "");
        row("--json get k.ls",
            R"(0\|\{"content":\{"n":1,"s":"x"\},"logged":true,"name":"k.ls".*\}\|)", "");
        row("get gone.a", R"(1\|\|trelanctl: refused by the bus: 2 [^\n]*"gone\.a")", "");
        row("pub a..b x=1", R"(1\|\|trelanctl: refused by the bus: 2 [^\n]*empty segment)", "");
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
        row("wait k.l+ --timeout 0.3",
            R"(1\|\|trelanctl: warning: 'k.l\+' can .*\ntrelanctl: nothing that 'k.l\+' takes .*)",
            "");
        row("ls '*.ls'", R"(0\|NAME [^\n]*\|trelanctl: warning: '\*\.ls' can match nothing but .*)",
            "");
        row("wait k.ls", R"(0\|k\.ls  me  \S+ \S+  \{"n":1,"s":"x"\}\|)", "");
        row("watch 'k.*' | head -1", R"(0\|k\.[^\n]*\|trelanctl: nobody reads[^\n]*)", "");
        row("watch 'k.*' >/dev/full", R"(1\|\|trelanctl: cannot write the output: .*)", "");
        row("send nobody hi", R"(1\|\|trelanctl: no client 'nobody' is there)", "");
        row("call nobody do", R"(1\|\|trelanctl: no client 'nobody' is there)", "");
        row("send absent hi --stored", R"(0\|\|)", "");
        row("clients", R"(0\|NAME .*\nabsent +- +0 +1 +[1-9]\d+ +0 +0 +- +-\ntrelanctl-.*\|)", "");
        row("--name me whoami",
            R"(0\|NAME +me\nADDRESS +127\..*\nOWNER +user\nUSER +\w.*\n)"
            R"(PROCESS +\d+\nPROGRAM +trelanctl\|)",
            "");
        row("--json --name me whoami", R"(0\|\{"address":.*"name":"me",.*"owner":"user",.*\}\|)",
            "");
        row("bench --json --seconds 0.001", R"(0\|(\{"bytes":\d+,"count":[^\n]+\n?){9}\|)", "");
        row("pub --help", R"(0\|.*trelanctl pub room\.kitchen .*\|)", "");
        row("--version", R"(0\|trelanctl 1\..*\|)", "");
        for (const char *line :
             {"''", "nonsense", "ls a b", "get", "pub a", "pub a x", "pub a '{x}'",
              "pub a x=1 --permanent --not-stored", "ls --query-port 65536", "ls --host ::1",
              "get \"$(printf '\\377')\"", "serve ''  --exec cat",
              "serve x --exec /nowhere/program", "serve x --exec nowhere-program",
              "serve x --exec /dev/null"})
            row(line, R"(2\|\|trelanctl: [^\n]+)", "");
        row("pub a - ", R"(2\|\|trelanctl: [^\n]*no JSON object[^\n]*)", "{");
    }

    void run()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, pattern);
        const QString result = runTool(QTest::currentDataTag(), _at, input);
        const QRegularExpression expected(QString::fromLatin1("(?s)\\A" + pattern + "\\z"));
        QVERIFY2(expected.match(result).hasMatch(), qPrintable(result));
    }

    void watchesInOrder()
    {
        QCOMPARE(runTool("pub w.a n=1", _at), "0||");
        RunningTool watch("--json watch 'w.*' 'w.+'", _at);
        AWAIT(watch.out.count('\n') == 1);
        for (const char *line : {"pub w.a n=2", "pub w.b n=3 --not-stored", "pub other n=4",
                                 "pub w.a n=5 --name me", "rm w.a"})
            QCOMPARE(runTool(line, _at).left(2), "0|");
        AWAIT(watch.out.count('\n') == 5);
        QVERIFY(watch.out.endsWith("\n{\"name\":\"w.a\",\"removed\":true}\n"));
        QCOMPARE(watch.end(SIGINT), 0);
        QByteArray numbers;
        for (const QByteArray &line : watch.out.trimmed().split('\n'))
            numbers += QJsonDocument::fromJson(line)["content"]["n"].toVariant().toByteArray();
        QCOMPARE(numbers, "1235");
    }

    void waitsForWhatComes()
    {
        RunningTool wait("wait coming.+", _at);
        // The bus does not store the object: publish it until the tool is there to see it.
        AWAIT(runTool("pub coming.now n=1 --not-stored", _at) == "0||" &&
              wait.state() == QProcess::NotRunning);
        QCOMPARE(wait.out.count('\n'), 1);
    }

    void serves_data()
    {
        const TestTable<QByteArray, QByteArray> row("server", "answer");
        const QByteArray error = R"(1\|\|trelanctl: 'server' answers with an error: )";
        row("program", "--exec cat", R"(0\|\{"k":\[1,null]}\|)");
        row("exit code", "--exec /bin/sh -- -c 'exit 3'", error + ".* exit code 3");
        row("no JSON", "--exec /bin/echo hi", error + ".*no JSON object.*");
        row("no interpreter", "--exec \"$BROKEN\"", error + ".*cannot be started.*");
        row("too much", "--exec /usr/bin/yes", error + ".*more than \\d+ bytes");
        row("too long", "--timeout 0.3 --exec /bin/sh -- -c 'sleep 100 & echo =$!= >&2; wait'",
            error + ".*within 0.3 s");
        row("error of its own", "--exec /bin/echo '{\"error\":7,\"k\":1}'",
            R"(1\|\{"error":7,"k":1\}\|trelanctl: 'server' answers with an error: 7)");
    }

    void serves()
    {
        QFETCH(QByteArray, server);
        QFETCH(QByteArray, answer);
        const QTemporaryDir folder;
        QFile broken(folder.filePath("broken"));
        QVERIFY(broken.open(QIODevice::WriteOnly) && broken.write("#!/nowhere/shell\n") > 0);
        QVERIFY(broken.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        broken.close();
        server.replace("$BROKEN", broken.fileName().toUtf8());
        RunningTool serve("--name server serve do " + server, _at);
        AWAIT(serve.err.contains("serving 'do' as the client"));
        const QString result = runTool("call server do 'k=[1,null]'", _at);
        const QRegularExpression expected("\\A" + QString::fromLatin1(answer) + "\\z");
        QVERIFY2(expected.match(result).hasMatch(), qPrintable(result));
        if (server.contains('=')) { // what the program has started is killed with it
            AWAIT(serve.err.count('=') == 2);
            AWAIT(runningCommand(serve.err.split('=')[1]).isEmpty());
        }
        QCOMPARE(serve.end(SIGTERM), 0);
    }

    void servesEverybodyAndFewAtOnce()
    {
        const QTemporaryDir folder;
        const QByteArray fifo = folder.filePath("fifo").toUtf8();
        QCOMPARE(::mkfifo(fifo.constData(), 0600), 0);
        RunningTool serve("--name server serve do --exec /bin/sh -- -c 'echo start >&2; cat " +
                              fifo + "; cat >&2; echo {}'",
                          _at);
        AWAIT(serve.err.contains("serving"));
        QCOMPARE(runTool("pub __bus__.__cmd__.do all=1", _at), "0||");
        std::array<std::unique_ptr<RunningTool>, 4> calls;
        for (auto &call : calls)
            call = std::make_unique<RunningTool>("call server do", _at);
        // The server has all five commands, and one of them waits.
        const QByteArray clients = "--json clients | grep server";
        const QRegularExpression allSent("\"out\":5,.*\"queued\":0,");
        AWAIT(runTool(clients, _at).contains(allSent));
        AWAIT(serve.err.count("start") == 4);
        const auto ended = [](const auto &call) { return call->out == "{}\n"; };
        AWAIT(release(fifo) && std::all_of(calls.begin(), calls.end(), ended));
        AWAIT(serve.err.count("{\"all\":1}") == 1);
        // Requests of the server: its subscription and four answers. A command to everybody gets
        // none.
        QVERIFY(runTool(clients, _at).contains(R"("in":5,)"));
        QCOMPARE(serve.end(SIGINT), 0);
    }

    void lateAnswerLeavesNothing()
    {
        const QTemporaryDir folder;
        const QByteArray fifo = folder.filePath("fifo").toUtf8();
        QCOMPARE(::mkfifo(fifo.constData(), 0600), 0);
        RunningTool serve("--name server serve do --exec cat " + fifo, _at);
        AWAIT(serve.err.contains("serving"));
        QVERIFY(runTool("--name caller call server do --timeout 0.3", _at).contains("no answer"));
        AWAIT(release(fifo) && serve.err.contains("the answer to 'caller' is lost"));
        QVERIFY(!runTool("clients", _at).contains("caller"));
    }

    void otherChannelsPort()
    {
        bus::TrelanBusSettings swapped = _at;
        swapped.setQueryPort(_at.msgPort());
        swapped.setMsgPort(_at.queryPort());
        const QString hint =
            QString("127.0.0.1:%1 seems to be the port of the message channel").arg(_at.msgPort());
        for (const char *line : {"ls", "watch x", "logs", "call x y", "bench --seconds 0.001"}) {
            const QString result = runTool(line, swapped);
            QVERIFY2(result.startsWith("1||") && result.contains(hint), qPrintable(result));
        }
        swapped.setQueryPort(swapped.msgPort());
        QVERIFY(
            runTool("watch x", swapped).startsWith("2||trelanctl: --query-port and --msg-port"));
    }

    void showsLogs()
    {
        const QByteArray text = "{\"__cmd__\":{\"__name__\":\"saveLog\",\"__params__\":"
                                "{\"prefix\":\"ERROR\",\"text\":\"x\\u001b[2J\"}}}";
        QCOMPARE(runTool("--name app send logger --stored '" + text + "'", _at), "0||");
        RunningTool logs("logs", _at);
        AWAIT(logs.out.endsWith("  app  ERROR  x\\u001b[2J\n"));
        QCOMPARE(runTool("call logger do --timeout 0.4", _at),
                 "1||trelanctl: no answer from 'logger' to 'do' within 0.4 s");
        RunningTool other("logs", _at); // takes the name over
        AWAIT(logs.state() == QProcess::NotRunning);
        QVERIFY2(logs.err.contains("has taken the name 'logger' over, from "), logs.err);
        QVERIFY2(other.end(SIGINT) == 0, other.err);
    }

    void breaksAMeasurementOff()
    {
        RunningTool bench("bench --seconds 1000", _at);
        AWAIT(runTool("clients", _at).contains("trelanctl-bench-"));
        QCOMPARE(bench.end(SIGINT), 1);
        QVERIFY2(bench.err.contains("interrupted"), bench.err);
    }

    void survivesARestart()
    {
        RunningTool watch("watch 'r.*'", _at);
        RunningTool serve("--name server serve do --exec /bin/cat", _at);
        QCOMPARE(runTool("pub r.a n=1", _at), "0||");
        AWAIT(watch.out.contains("{\"n\":1}") && !serve.err.isEmpty());
        _bus.stop();
        AWAIT(watch.err.contains("is away\n") && serve.err.contains("is away\n"));
        QVERIFY2(_bus.start(_at), qPrintable(_bus.errorString()));
        AWAIT(watch.err.contains("is back\n") && serve.err.contains("is back\n"));
        QCOMPARE(runTool("call server do n=2", _at), R"(0|{"n":2}|)");
        QCOMPARE(runTool("pub r.a n=3", _at), "0||");
        AWAIT(watch.out.contains("{\"n\":3}"));
        QCOMPARE(watch.err.count('\n'), 2);
        QCOMPARE(watch.end(SIGTERM), 0);
    }

    void completes()
    {
        QProcess shell;
        shell.start("/bin/bash",
                    {"-c", "eval \"$(" TRELANCTL " --print-completion)\"\n"
                           "COMP_WORDS=(trelanctl --host wait serve x --ti) COMP_CWORD=5\n"
                           "_trelanctl; echo \"${COMPREPLY[*]}\""});
        QVERIFY(shell.waitForFinished());
        QCOMPARE(shell.readAllStandardOutput(), "--timeout\n");
    }

    void noBus()
    {
        _at.setMsgPort(1);
        QVERIFY(runTool("watch x", _at).startsWith("3||trelanctl: no bus at 127.0.0.1:1\n"));
        const QString bench = runTool("bench --seconds 0.001", _at);
        static const QRegularExpression EXPECTED(
            "(?s)^3\\|WHAT .*\\d\\.\\d{3} +\\d+\\.\\d{3}\n.*no bus: no connection to port 1: ");
        QVERIFY2(bench.contains(EXPECTED), qPrintable(bench));
        _bus.stop();
        const QString expected =
            QString("3||trelanctl: no bus at 127.0.0.1:%1\n").arg(_at.queryPort());
        for (const char *line : {"ls", "watch x", "call x y", "send x y"})
            QVERIFY2(runTool(line, _at).startsWith(expected), line);
    }

private:
    static QByteArray runningCommand(const QByteArray &pid)
    {
        QFile file("/proc/" + pid + "/cmdline"); // empty once the process is dead
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    /// Lets all readers of \a fifo come to its end.
    static bool release(const QByteArray &fifo)
    {
        ::close(::open(fifo.constData(), O_WRONLY | O_NONBLOCK));
        return true;
    }

    bus::TrelanBus _bus;
    bus::TrelanBusSettings _at; // the settings of the bus, with the ports that it got
};

QTEST_GUILESS_MAIN(tst_Tool)
#include "tst_tool.moc"
