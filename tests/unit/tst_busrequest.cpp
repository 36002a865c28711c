#include "request/buspayload.h"
#include "request/busrequest.h"

#include <testtable.h>

using namespace bus;

/// Requests of the usual kind are read another way than the rest: what comes of them must not
/// depend on the way.
class tst_BusRequest : public QObject
{
    Q_OBJECT

    /// For better reading the quotes of the texts here are single ones.
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
        row("zero", "{'nm':'a','dt':'1','cnt':{'k':0.0}}", published.arg("a||1|0|{'k':0}"));
        row("no name", "{'dt':'1'}", {});
        row("name is no text", "{'nm':1,'dt':'1'}", {});
        row("name", "{'nm':'a..b','dt':'1'}", {});
        row("content is a list", "{'nm':'a','dt':'1','cnt':[]}", {});
        row("options are a text", "{'nm':'a','dt':'1','opt':'1'}", {});
        row("key twice", "{'nm':'a','dt':'1','cnt':{'k':1,'l':{'m':1,'m':2}}}", {});
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
        const BusRequest unusual =
            BusRequest::parse(packed("{'operation':'pub','x':1,'data':" + data + "}"), LIMIT);
        QCOMPARE(described(usual), described(unusual));
        for (const QByteArray &content : {usual.record.contentJson, unusual.record.contentJson})
            QVERIFY(content.capacity() - content.size() < 64); // as only its size is accounted
        if (expected.isEmpty())
            QCOMPARE(usual.operation, BusRequest::Invalid);
        else
            QCOMPARE(described(usual), expected);
    }

    void acknowledgements_data()
    {
        const TestTable<QByteArray, QString> row("json", "expected");
        row("usual", "{'operation':'o','data':{'sender':'s','reciever':'r','uid':'u'}}", "osru");
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
