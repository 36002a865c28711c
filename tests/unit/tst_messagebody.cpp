#include "delivery/notification.h"

#include <testtable.h>
#include <trelanframe.h>
#include <trelanframereader.h>

using namespace bus;

namespace
{

const QString ODD = QStringLiteral("\u00e9\u20ac\\\"\n\t\u0001\u007f/") + QChar(0xd83d) +
                    QChar(0xde00) + QChar(0xd83d) + QChar(0xfeff) + QChar(0);

QByteArray classicFrame(const TrelanMessage &message)
{
    return TrelanFrame::encode(TrelanFrame::Request,
                               TrelanFrame::request("sendMessage", message.toVariantMap()));
}

/// What the payload of a frame inflates to.
QByteArray textOf(const QByteArray &frame)
{
    TrelanFrameReader reader(1 << 24);
    reader.feed(frame);
    return reader.next() == TrelanFrameReader::FrameReady
               ? qUncompress(QByteArray::fromBase64(reader.payload()))
               : QByteArray();
}

QVariantMap dataOf(const QByteArray &frame)
{
    return TrelanFrame::decodeJson(textOf(frame)).envelope["data"].toMap();
}

} // namespace

class tst_MessageBody : public QObject
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
        const MessageBody body(message);
        for (const QString &receiver : {names, names + '2'}) {
            message.setReciever(receiver);
            message.setUid(receiver + names);
            const auto frame = [&](TrelanTransport::Coding coding) {
                return body.frame(receiver, receiver + names, coding);
            };
            QCOMPARE(frame(TrelanTransport::Classic), classicFrame(message));
            QCOMPARE(dataOf(frame(TrelanTransport::Light)), message.toVariantMap());
        }
    }

    void notifications_data() // with ' in place of "
    {
        const TestTable<QByteArray> row("content");
        row("empty", "{}");
        row("nested", "{'a':{},'b':[],'c':[[],{}],'d':[1,{'e':[2,3]}],'e':{'f':{'g':null}}}");
        row("odd order", "{'b':1,'a':{'b':1,'B':2},'\xc3\xa4':1,'\\n':1}");
        row("odd texts", "{'a':'\\u0041\\/\\ud800','b':'\xef\xbb\xbfx'}");
        row("odd numbers", "{'a':[-0,1.0,1e3,0.10,1234567890123456789,123456789012345680000]}");
        row("deep", "{'a':" + QByteArray(200, '[') + QByteArray(200, ']') + "}");
    }

    void notifications()
    {
        QFETCH(QByteArray, content);
        content.replace('\'', '"');
        ObjectRecord record;
        record.contentJson = content;
        record.head.name = ODD;
        record.head.publisher = ODD.mid(2);
        record.head.uid = "uid";
        record.head.time = 1700000000123;
        const auto frame = [&](TrelanTransport::Coding coding) {
            return Notification(coding)
                .message(record, "receiver", Notification::Unsaid)
                .frame(coding);
        };
        const TrelanMessage expected = record.toObject().toMessage("receiver");
        QCOMPARE(frame(TrelanTransport::Classic), classicFrame(expected));
        QVariantMap data = dataOf(frame(TrelanTransport::Light));
        const QByteArray text = data["msg"].toString().toUtf8();
        QVERIFY2(text.startsWith("{\"__context__\":" + content + ",\"__name__\":"), text);
        data["msg"] = expected.message();
        QCOMPARE(data, expected.toVariantMap());
    }
};

QTEST_APPLESS_MAIN(tst_MessageBody)
#include "tst_messagebody.moc"
