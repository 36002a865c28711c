#include "request/buspayload.h"
#include "request/busrequest.h"

#include <testtable.h>

using namespace bus;

/// A publish of the usual kind is copied out of its text, any other goes through a map: what comes
/// of it must not depend on the way.
class tst_BusRequest : public QObject
{
    Q_OBJECT

    /// Replaces single quotes, which make the JSON texts here easier to read.
    static QByteArray packed(QByteArray json)
    {
        return qCompress(json.replace('\'', '"')).toBase64();
    }

    static QString described(const BusRequest &request)
    {
        const ObjectHead &head = request.record.head;
        return QString("%1 %2 %3|%4|%5|%6|%7|%8")
            .arg(request.operation)
            .arg(request.word, request.fault.description(), head.name, head.uid)
            .arg(head.time)
            .arg(int(head.options))
            .arg(QString::fromUtf8(request.record.contentJson).replace('"', '\''));
    }

private Q_SLOTS:
    void bothWays_data()
    {
        const TestTable<QByteArray, QString> row("data", "expected");
        const QString published = "2 pub |%1";
        const auto nested = [](int depth) {
            return "{'nm':'a','dt':'1','cnt':" + QByteArray("{'k':").repeated(depth) + "1" +
                   QByteArray("}").repeated(depth) + "}";
        };
        row("all", "{'nm':'a.b','cnt':{'k':[1,'2',null]},'dt':'12','uid':'u','opt':6,'p':'x'}",
            published.arg("a.b|u|12|6|{'k':[1,'2',null]}"));
        row("blanks", "{ 'nm' : 'a',\n'dt':'1', 'cnt' : { 'k\\'{' : 'a b' } }",
            published.arg("a||1|0|{'k\\'{':'a b'}"));
        row("blanks in texts", "{'nm':'a','dt':'1','cnt':{'k ':' a ','l':['\\\\ ']}}",
            published.arg("a||1|0|{'k ':' a ','l':['\\\\ ']}"));
        row("one blank", "{'nm':'a','dt':'1','cnt':{'k':[1,[2],{} ]}}",
            published.arg("a||1|0|{'k':[1,[2],{}]}"));
        row("others in front", "{'a':{'cnt':{}},'b':[1,{'cnt':2}],'cnt':{'k':1},'nm':'a','dt':'1'}",
            published.arg("a||1|0|{'k':1}"));
        row("no content", "{'nm':'a','dt':'1'}", published.arg("a||1|0|{}"));
        row("content in front", "{'cnt':{'cnt':{}},'nm':'a','dt':'1'}",
            published.arg("a||1|0|{'cnt':{}}"));
        row("escaped key", "{'nm':'a','dt':'1','c\\u006et':{'k':1}}",
            published.arg("a||1|0|{'k':1}"));
        row("mark", "{'nm':'\\ufeffa','dt':'1','uid':'\\ufeff'}",
            published.arg(QStringLiteral("\ufeffa|\ufeff|1|0|{}")));
        row("mark in front of a key",
            "{'nm':'a','dt':'1','\xef\xbb\xbf"
            "cnt':{'k':1}}",
            published.arg("a||1|0|{'k':1}"));
        row("many blanks", "{'nm':'a','dt':'1','cnt':{" + QByteArray(100000, ' ') + "}}",
            published.arg("a||1|0|{}"));
        row("time is a number", "{'nm':'a','dt':5}", published.arg("a||5|0|{}"));
        row("options are no integer", "{'nm':'a','dt':'1','opt':2.0}", published.arg("a||1|2|{}"));
        row("no name", "{'dt':'1'}", {});
        row("name is no text", "{'nm':1,'dt':'1'}", {});
        row("name", "{'nm':'a..b','dt':'1'}", {});
        row("content is a list", "{'nm':'a','dt':'1','cnt':[]}", {});
        row("options are a text", "{'nm':'a','dt':'1','opt':'1'}", {});
        row("key twice", "{'nm':'a','dt':'1','cnt':{'k':1,'l':{'m':1,'m':2}}}", {});
        row("key twice beside the content", "{'nm':'a','dt':'1','dt':'2'}", {});
        row("key twice, escaped", "{'nm':'a','dt':'1','cnt':{'k':1,'\\u006b':2}}", {});
        row("long id", "{'nm':'a','dt':'1','uid':'" + QByteArray(1025, 'u') + "'}", {});
        row("too small a number", "{'nm':'a','dt':'1','cnt':{'k':1e-999}}", {});
        row("deep", nested(100),
            published.arg("a||1|0|") + QString(nested(100).mid(25).chopped(1)));
        row("too deep", nested(1001), {});
        row("too large when indented",
            "{'nm':'a','dt':'1','cnt':{'k':[" + QByteArray("0,").repeated(4000000) + "0]}}", {});
    }

    void bothWays()
    {
        QFETCH(const QByteArray, data);
        QFETCH(const QString, expected);
        constexpr qint64 LIMIT = 64 * 1024 * 1024;
        const BusRequest usual =
            BusRequest::parse(packed("{'operation':'pub','data':" + data + "}"), LIMIT);
        const BusRequest unusual = BusRequest::parse(
            packed("{'operation':'pub','x':100000000000000000000,'data':" + data + "}"), LIMIT);
        QCOMPARE(described(usual), described(unusual));
        for (const QByteArray &content : {usual.record.contentJson, unusual.record.contentJson})
            QVERIFY(content.capacity() - content.size() < 64); // only the size is accounted for
        if (expected.isEmpty())
            QCOMPARE(usual.operation, BusRequest::Invalid);
        else
            QCOMPARE(described(usual), expected);
    }

    /// A line break for each bracket, and for each comma in between, with four blanks for each
    /// level and three levels around the content.
    void measures()
    {
        for (const QByteArray front : {"", "'x':100000000000000000000,"}) {
            const payload::Request request = payload::decodeRequest(
                packed("{" + front +
                       "'operation':'pub','data':{'nm':'a','cnt':{'k':[1,{},'x'],'l':2}}}"),
                1000);
            QCOMPARE(request.isPublish, front.isEmpty());
            QCOMPARE(request.measure.depth, 3);
            QCOMPARE(request.measure.indentation, 3 * 17 + 4 * 21 + 2 * 25);
        }
    }

    /// What Qt writes is accepted, and what Qt cannot read is refused: it would go on to others.
    void oddTexts_data()
    {
        const TestTable<QByteArray, QString> row("value", "kept");
        row("half a pair", "'\\ud83d'", "'\\ud83d'");
        row("other half", "'\\udc00x'", "'\\udc00x'");
        row("half in front of a pair", "'\\ud83d\\ud83d\\ude00'", "'\\ud83d😀'");
        row("pair", "'\\ud83d\\ude00\\\\ud83d'", "'\\ud83d\\ude00\\\\ud83d'");
        row("half in a key", "{'\\ud800':1,'\\ud801':2}", "{'\\ud800':1,'\\ud801':2}");
        row("2^64 - 1", "18446744073709551615", "18446744073709551615");
        row("2^64", "18446744073709551616", "18446744073709552000");
        row("22 digits", "[-1234567890123456800000]", "[-1234567890123456800000]");
        row("digits in a text", "'123456789012345680000'", "'123456789012345680000'");
        row("400 digits", QByteArray(400, '9'), "");
        row("beginning with zero", "012345678901234567890", "");
        row("zeros", "[0.0,-0,0e-500]", "[0.0,-0,0e-500]");
        row("smallest", "5e-324", "5e-324");
        row("too small", "[0.0,'1e-400',2e-324]", "");
        row("too small, without exponent", "0." + QByteArray(400, '0') + "1", "");
        row("small only in a text", "['1e-400',0.0]", "['1e-400',0.0]");
        row("too large", "1e400", "");
        row("control character", "'\x01'", "");
        row("unknown escape", "'\\x'", "");
        row("no digit", "[-.5]", "");
        row("mark", "'\xef\xbb\xbfx'", "'\xef\xbb\xbfx'");
        row("no UTF-8", "'\xff'", "");
        row("comma at the end", "[1,]", "");
    }

    void oddTexts()
    {
        QFETCH(const QByteArray, value);
        const QByteArray json = "{'operation':'pub','data':{'nm':'a','dt':'1','cnt':{'k':" + value;
        for (const QByteArray front : {"", "\xef\xbb\xbf"}) {
            const BusRequest request = BusRequest::parse(packed(front + json + "}}}"), 10000);
            QString content = QString::fromUtf8(request.record.contentJson).replace('"', '\'');
            QTEST(content.mid(5).chopped(content.isEmpty() ? 0 : 1), "kept");
            QCOMPARE(request.operation == BusRequest::Invalid, content.isEmpty());
        }
    }

    /// A name is taken from the text itself, not from what stands in for it.
    void halvesOfPairsOutsideOfContents()
    {
        const auto parse = [](const QByteArray &json) {
            return BusRequest::parse(packed("{'operation':" + json + "}"), 10000);
        };
        QCOMPARE(parse("'pub','data':{'nm':'\\ud800'}").operation, BusRequest::Invalid);
        const QString half(QChar(0xd800));
        QCOMPARE(parse("'pub','data':{'nm':'a','uid':'\\ud800'}").record.head.uid, half);
        QCOMPARE(parse("'sub','data':{'wc':'\\ud800'}").names, QStringList(half));
        const QByteArray answer = "{'operation':'o','data':{'uid':'\\ud800'}}";
        QCOMPARE(payload::decodeAcknowledgement(packed(answer), 1000).uid, half);
    }

    void acknowledgements_data()
    {
        const TestTable<QByteArray, QString> row("json", "expected");
        row("usual", "{'operation':'o','data':{'sender':'s','reciever':'r','uid':'u'}}", "osru");
        const QByteArray light = "{'data':{'reciever':'r','sender':'s','uid':'u'},'operation':"
                                 "'sendMessage','result':{'code':0,'description':''}}";
        row("as the library writes it", light, "sendMessagesru");
        row("with an escape", QByteArray(light).replace("'u'", "'\\u0075'"), "sendMessagesru");
        row("beyond ASCII", QByteArray(light).replace("'u'", "'\xc3\xbc'"),
            QStringLiteral("sendMessagesr\u00fc"));
        row("no UTF-8", QByteArray(light).replace("'u'", "'\xc3'"), "----");
        row("with a line feed", QByteArray(light).replace("'u'", "'\n'"), "----");
        row("cut off", light.chopped(1), "----");
        row("more behind it", light + '}', "----");
        row("incomplete", "{'operation':'o','data':{'sender':1,'uid':'u'}}", "o--u");
        row("deep",
            "{'operation':'o','data':{'sender':'s','x':" + QByteArray(200, '[') +
                QByteArray(200, ']') + "}}",
            "os--");
        row("mark", "{'operation':'o','data':{'uid':'\\ufeffu'}}", QStringLiteral("o--\ufeffu"));
        row("no data", "{'operation':'o'}", "o---");
        row("no JSON", "{", "----");
    }

    void acknowledgements()
    {
        QFETCH(const QByteArray, json);
        const bus::payload::Acknowledgement read =
            bus::payload::decodeAcknowledgement(packed(json), 10000);
        const auto shown = [](const QString &text) { return text.isEmpty() ? QString("-") : text; };
        QTEST(shown(read.operation) + shown(read.sender) + shown(read.reciever) + shown(read.uid),
              "expected");
    }
};

QTEST_APPLESS_MAIN(tst_BusRequest)
#include "tst_busrequest.moc"
