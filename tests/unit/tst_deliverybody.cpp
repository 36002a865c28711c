#include "request/jsontext.h"
#include "values/objectrecord.h"

#include <jsonwriter.h>
#include <testtable.h>
#include <trelanframe.h>

#include <cmath>
#include <random>

using namespace bus;

namespace
{

const QString ODD = QStringLiteral("\u00e9\u20ac\\\"\n\t\u0001\u007f/") + QChar(0xd83d) +
                    QChar(0xde00) + QChar(0xd83d) + QChar(0xfeff) + QChar(0);

QByteArray expectedFrame(const TrelanMessage &message)
{
    return TrelanFrame::encode(TrelanFrame::Request,
                               TrelanFrame::request("sendMessage", message.toVariantMap()));
}

QByteArray notificationFrame(const ObjectRecord &record, const QString &receiver)
{
    return record.notification(TrelanTransport::Classic)
        ->frame(receiver, record.notificationUid(), TrelanTransport::Classic);
}

QVariant someValue(std::mt19937 &random, int level)
{
    const auto entries = random() % 4;
    QVariantMap map;
    QVariantList list;
    switch (random() % (level < 4 ? 8 : 6)) {
    case 0:
        return ODD.mid(int(random() % 5), int(random() % 9));
    case 1:
        return int(random()) >> random() % 32;
    case 2:
        return double(int(random())) / (1 + random() % 1000);
    case 3:
        return qlonglong(quint64(random()) << random() % 33);
    case 4:
        return std::ldexp(double(random()), int(random() % 200) - 130);
    case 5:
        return random() % 3 ? QVariant(random() % 2 == 0) : QVariant::fromValue(nullptr);
    case 6:
        for (auto i = entries; i > 0; --i)
            map.insert(random() % 8 ? QString::number(random() % 50) : ODD.mid(random() % 9),
                       someValue(random, level + 1));
        return map;
    default:
        for (auto i = entries; i > 0; --i)
            list.append(someValue(random, level + 1));
        return list;
    }
}

} // namespace

class tst_DeliveryBody : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void messages_data()
    {
        const TestTable<QString, QString, qint64, int> row("names", "text", "time", "options");
        row("usual", "host.box-17", "{}", 1700000000123, 0);
        row("empty", "", "", 0, 7);
        row("odd", ODD, ODD, -1, 4);
        row("large", ODD, QString(3000, 'x') + ODD.repeated(500), 253402300799999, 1);
    }

    /// The first is encoded alone, the second makes what the others find.
    void messages()
    {
        QFETCH(QString, names);
        QFETCH(QString, text);
        QFETCH(qint64, time);
        QFETCH(int, options);
        TrelanMessage message(QDateTime::fromMSecsSinceEpoch(time));
        message.setMessage(text);
        message.setOptions(TrelanMessage::Options(QFlag(options)));
        message.setSender(names);
        const DeliveryBody body(message);
        for (const QString &receiver : {names, names + '2', QString("third"), names}) {
            message.setReciever(receiver);
            message.setUid(receiver + names);
            QCOMPARE(body.frame(receiver, receiver + names, TrelanTransport::Classic),
                     expectedFrame(message));
        }
    }

    void notifications_data() // with ' in place of "
    {
        const TestTable<QByteArray, bool> row("content", "isUsual");
        row("empty", "{}", true);
        row("nested", "{'a':{},'b':[],'c':[[],{}],'d':[1,{'e':[2,3]}],'e':{'f':{'g':null}}}", true);
        row("words", "{'a':true,'b':[false,null]}", true);
        row("numbers", "{'a':[0,-1,12,999999999999999,0.5,-0.0001,1.25,0.1,123456789.123]}", true);
        row("strings", "{'':'','a':'\\'\\\\\\b\\f\\n\\r\\t','b':'[{,:}]','c':' x ','d/':'/'}",
            true);
        row("ASCII and not", "{'a':'\xc3\xa4\xf0\x9f\x98\x80\x7f'}", true);
        for (const char *text :
             {"{'b':1,'a':2}", "{'a':{'b':1,'B':2}}", "{'\xc3\xa4':1,'b':2}", "{'\\n':1}",
              "{'a':'\\u0041'}", "{'a':'\\/'}", "{'a':'\\ud800'}", "{'a':'\xef\xbb\xbfx'}",
              "{'a':-0}", "{'a':1.0}", "{'a':1e3}", "{'a':1E-7}", "{'a':0.00001}", "{'a':0.10}",
              "{'a':1234567890123456789}", "{'a':0.1000000000000000055}", "{'a':1e400}",
              "{'a':123456789012345678.5}"})
            row(text, text, false);
        const QByteArray open(200, '['), closed(200, ']');
        row("deep", "{'a':" + open + closed + "}", false);
    }

    void notifications()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, isUsual);
        content.replace('\'', '"');
        QByteArray text;
        QCOMPARE(jsontext::appendIndented(text, content, 0), isUsual);
        ObjectRecord record;
        record.contentJson = content;
        record.head.name = ODD;
        record.head.publisher = ODD.mid(2);
        record.head.uid = "uid";
        record.head.time = 1700000000123;
        QCOMPARE(notificationFrame(record, "receiver"),
                 expectedFrame(record.toObject().toMessage("receiver")));
    }

    void notificationsOfAnything()
    {
        std::mt19937 random(1);
        int usual = 0;
        for (int round = 0; round < 3000; ++round) {
            const QVariantMap content {{"a", someValue(random, 0)}, {"b", someValue(random, 0)}};
            const QByteArray indented = json::indented(content);
            QByteArray text;
            if (!jsontext::appendIndented(text, json::compact(content), 0))
                continue;
            ++usual;
            QCOMPARE(text + '\n', indented);
        }
        QVERIFY2(usual > 1000 && usual < 2500, qPrintable(QString::number(usual)));
    }
};

QTEST_APPLESS_MAIN(tst_DeliveryBody)
#include "tst_deliverybody.moc"
