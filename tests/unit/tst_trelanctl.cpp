#include "arguments.h"
#include "benchfigures.h"
#include "contentparser.h"
#include "objecttable.h"
#include "terminaltext.h"
#include "wildcardadvice.h"

#include <testtable.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <numeric>

using namespace trelanctl;

class tst_TrelanCtl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void content_data();

    void content()
    {
        QFETCH(QByteArray, words);
        QFETCH(QByteArray, made);
        const ParsedContent parsed = parseContent(QString::fromUtf8(words).split(QLatin1Char(' ')));
        const QJsonDocument content(QJsonObject::fromVariantMap(parsed.content));
        if (parsed.isValid())
            QCOMPARE(content.toJson(QJsonDocument::Compact), made);
        else
            QCOMPARE(parsed.errorText.toUtf8().left(made.size()), made);
    }

    void arguments_data()
    {
        const TestTable<int, QByteArray> row("exitCode", "seen");
        row("call c cmd", Done, "cmd|c|||30000|127.0.0.1:43537");
        row("call c cmd a=1 b=2 --timeout 0.5 --msg-port 7", Done,
            "cmd|c|a=1,b=2||500|127.0.0.1:7");
        row("call --host box --timeout 2 -- c -x -1=2", Done, "-x|c|-1=2||2000|box:43537");
        row("serve x --exec p", Done, "x|||p|20000|127.0.0.1:43537");
        row("serve x --timeout 1 --exec ./p -- --flag ++ [a] -", Done,
            "x|||./p,--flag,++,[a],-|1000|127.0.0.1:43537");
        for (const char *line :
             {"serve x", "serve --exec p", "watch", "wait a b", "send c", "logs x",
              "wait a --timeout 0", "wait a --timeout 1e9", "bench --seconds -1", "call  x",
              "send  x", "rm a ", "ls --name ", "watch a  --json"})
            row(line, Usage, "");
    }

    void arguments()
    {
        const ParsedArguments parsed =
            parseArguments(QByteArray(QTest::currentDataTag()).split(' '));
        const Arguments &made = parsed.arguments;
        QTEST(int(parsed.exitCode), "exitCode");
        QCOMPARE(parsed.run, parsed.text.isEmpty());
        const QStringList program = QStringList(made.program) + made.programArguments;
        const QString seen = QStringList({made.name, made.client, made.content.join(','),
                                          program.join(','), QString::number(made.timeoutMs),
                                          QString("%1:%2").arg(made.host).arg(made.messagePort)})
                                 .join('|');
        if (parsed.run)
            QTEST(seen.toUtf8(), "seen");
    }

    void usageErrors_data()
    {
        const TestTable<QByteArray> row("text");
        row("ls --foo x --jsno", "unknown options '--foo', '--jsno' (did you mean '--json'?)");
        row("call c x --tiemout=5", "unknown option '--tiemout' (did you mean '--timeout'?)");
        row("--verb ls", "unknown option '--verb' (did you mean '--verbose'?)");
        row("ls --print-completoin", "unknown option '--print-completoin'");
        row("ls a [b] c", "unexpected arguments '[b]', 'c'");
        row("wach x", "'wach' is no command (did you mean 'watch'?); there are pub, get, ls,");
        row("call c ", "COMMAND: must not be empty");
        row("ls --host", "--host needs a value");
        row("ls --host a --host b", "--host is given more than once");
    }

    void usageErrors()
    {
        const QByteArray line = QTest::currentDataTag();
        QFETCH(const QByteArray, text);
        QCOMPARE(parseArguments(line.split(' ')).text.left(text.size()).toUtf8(), text);
    }

    void wildcards_data()
    {
        const TestTable<QByteArray> row("advice");
        for (const char *wildcard : {"*", "room.*", "room.+", "+.temp", "+.+", "*.room.*",
                                     "*.+.a.b.*", "room.temp", "*.*"})
            row(wildcard, "");
        row("room*", "nothing but itself: '*' and '+' count only as whole segments");
        row("room+.*", "nothing but itself: '*' and '+' count only as whole segments");
        row("+", "nothing but itself: a '+' counts only beside");
        row("*.temp", "nothing but itself: a '*' counts only at the end");
        row("a.*.b.*", "nothing but itself: a '*' counts only at the end");
        row("a..*", "nothing but itself: no name has an empty segment");
        row("a.b.+.c.d", "nothing but itself: a name would have to contain 'a.b.c.d'");
        row("room.+.temp", "only names that contain 'room.temp'"); // such as room.room.temp
        row("a.ba.+.a.b", "only names that contain 'a.ba.a.b'");   // a.ba.ba.a.b
        row("room*.+", "takes 'room*' as it stands");
    }

    void wildcards()
    {
        const QString said = wildcardAdvice(QTest::currentDataTag());
        QFETCH(const QByteArray, advice);
        QVERIFY2(advice.isEmpty() ? said.isEmpty() : said.contains(advice), qPrintable(said));
    }

    void logLines()
    {
        bus::TrelanCommand line;
        line.setSender("a\x1b");
        line.setParams({{"prefix", "ERROR"}, {"text", "x\ty\x07"}});
        const QString plain = "-  a\\u001b  ERROR  x  y\\u0007";
        QCOMPARE(logText(line, false), plain);
        QCOMPARE(logText(line, true), "\x1b[31m" + plain + "\x1b[0m");
        line.setParams({{"prefix", "OTHER"}, {"text", 1}});
        QVERIFY(!logText(line, true).contains('\x1b'));
    }

    void percentiles()
    {
        std::vector<qint64> times(200);
        std::iota(times.rbegin(), times.rend(), 1);
        QCOMPARE(percentile(times, 50), 100);
        QCOMPARE(percentile(times, 99), 198);
        QCOMPARE(percentile({7}, 99), 7);
    }

    void escaping_data()
    {
        const TestTable<QByteArray, QByteArray, int> row("text", "shown", "width");
        row("escape sequence", "\x1b]0;x\x07\r\n\x7f", "\\u001b]0;x\\u0007\\u000d\\u000a\\u007f",
            34);
        row("upper controls", "\302\2332J", "\\u009b2J", 8);
        // NOLINTNEXTLINE(misc-misleading-bidirectional): that is what must not reach a terminal
        row("direction, invisible", "\342\200\256x\342\201\246\342\200\213",
            "\\u202ex\\u2066\\u200b", 19);
        row("line separator, tag", "\342\200\250\363\240\201\201", "\\u2028\\udb40\\udc41", 18);
        row("pretended escape", "\\u001b", "\\\\u001b", 7);
        row("wide, mark", "\346\274\242\360\237\230\200e\314\201",
            "\346\274\242\360\237\230\200e\314\201", 5);
    }

    void escaping()
    {
        QFETCH(QByteArray, text);
        const QString result = terminal::escaped(QString::fromUtf8(text));
        QTEST(result.toUtf8(), "shown");
        QTEST(terminal::width(result), "width");
    }

    void tableIsAlignedAndCut()
    {
        bus::TrelanObject wide;
        wide.setName(QString::fromUtf8("\xe6\xbc\xa2.a"));
        wide.setContent({{"text", QString(200, QLatin1Char('x'))}});
        bus::TrelanObject narrow;
        narrow.setName("long.name\n");
        const QStringList lines = objectTable({wide, narrow}, 90);
        const int column = lines[0].indexOf("CONTENT");
        QCOMPARE(terminal::width(lines[1].left(lines[1].indexOf(QLatin1Char('{')))), column);
        QCOMPARE(lines[2].indexOf(QLatin1Char('{')), column);
        QCOMPARE(terminal::width(lines[1]), 90);
        QVERIFY(objectTable({wide}, 0).last().endsWith("xx\"}"));
    }
};

// Outside of the class, since moc cannot parse the literals here.
void tst_TrelanCtl::content_data()
{
    // Blanks separate the words. The result is compact JSON, or the beginning of an error.
    const TestTable<QByteArray, QByteArray> row("words", "made");
    row("object", R"({"a":{"b":[1,null]}})", R"({"a":{"b":[1,null]}})");
    row("values that are JSON", R"(i=-7 d=2.5 t=true n=null o={"k":1} l=[1,[2]])",
        R"({"d":2.5,"i":-7,"l":[1,[2]],"n":null,"o":{"k":1},"t":true})");
    row("values that are none", "a= b=1,2 c=1],[2 d=007 e=True f={x} g=1e999",
        R"({"a":"","b":"1,2","c":"1],[2","d":"007","e":"True","f":"{x}","g":"1e999"})");
    row("quoted number, second equals sign", R"(a="7" b=c=d)", R"({"a":"7","b":"c=d"})");
    row("broken object", R"({"a":})", "no JSON object: ");
    row("word", "a=1 \x1b[2J", "'\\u001b[2J' is neither a JSON object nor key=value");
    row("object and pair", "{} a=1", "'{}' is neither");
    row("key twice", "a=1 a=2", "the key 'a' is given twice");
}

QTEST_APPLESS_MAIN(tst_TrelanCtl)
#include "tst_trelanctl.moc"
