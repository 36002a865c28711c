#include <trelanframereader.h>

#include <QtTest/QtTest>

using bus::TrelanFrame;
using bus::TrelanFrameReader;

class tst_TrelanFrameReader : public QObject
{
    Q_OBJECT

private slots:
    void anyChunking_data();
    void anyChunking();
    void insideFrame();
};

void tst_TrelanFrameReader::anyChunking_data()
{
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<QByteArrayList>("frames"); // "Q" or "R", and the payload
    QTest::addColumn<QString>("end");           // text of the fault; empty if more may come
    const auto row = [](const char *name, const QByteArray &stream, const QByteArrayList &frames,
                        const char *end = "") {
        QTest::newRow(name) << stream << frames << QString::fromLatin1(end);
    };
    const auto sized = [&row](const QByteArray &size, const char *end) {
        row(size, "[-REPLY-]\r\n" + size + "\r\n!", {}, end);
    };

    row("request", "[-REQUEST-]\r\n5\r\nabcde", {"Qabcde"});
    row("two joined", "[-REPLY-]\r\n2\r\nhi[-REQUEST-]\r\n1\r\n!", {"Rhi", "Q!"});
    row("line breaks inside", "[-REPLY-]\r\n4\r\n\r\n\r\n", {"R\r\n\r\n"});
    row("no payload", "[-REPLY-]\r\n0\r\n[-REPLY-]\r\n1\r\n!", {"R", "R!"});
    row("blanks", "\t [-REPLY-] \r\n 1 \r\n!", {"R!"});
    row("15 bytes", "[-REQUEST-]  \r\n0000000000001\r\n!", {"Q!"});
    row("no carriage return", "[-REPLY-]\n1\n!", {"R!"});
    row("the limit", "[-REPLY-]\r\n9\r\n123456789", {"R123456789"});
    row("sign", "[-REPLY-]\r\n+1\r\n!", {"R!"}); // as liberal as QString's conversion
    row("payload to come", "[-REPLY-]\r\n3\r\nab", {});

    // A longer line is taken in pieces of 15 bytes, so its rest is no size.
    row("16 bytes", "[-REQUEST-]   \r\n1\r\n!", {}, "\"\" is no size line");
    row("joined to the word", "[-REPLY-]x\r\n1\r\n!", {}, "\"[-REPLY-]x\" is no header line");
    row("blank in the word", "[-REPLY -]\r\n1\r\n!", {}, "\"[-REPLY -]\" is no header line");
    row("lower case", "[-reply-]\r\n1\r\n!", {}, "\"[-reply-]\" is no header line");
    row("break behind a frame", "[-REPLY-]\r\n1\r\n!\r\n", {"R!"}, "\"\" is no header line");
    row("no break at all", QByteArray(40, 'A'), {}, "\"AAAAAAAAAAAAAAA\" is no header line");
    sized("abc", "\"abc\" is no size line");
    sized("-1", "\"-1\" is no size line");
    sized("1 1", "\"1 1\" is no size line");
    sized("0x1", "\"0x1\" is no size line");
    sized("", "\"\" is no size line");
    sized("10", "a payload of 10 bytes is above the limit of 9");
    sized("4294967297", "a payload of 4294967297 bytes is above the limit of 9");
    sized("99999999999999", "a payload of 99999999999999 bytes is above the limit of 9");
}

void tst_TrelanFrameReader::anyChunking()
{
    QFETCH(QByteArray, stream);
    QFETCH(QString, end);
    // The connection may cut the stream anywhere.
    for (int chunk = 1; chunk <= stream.size(); ++chunk) {
        TrelanFrameReader reader(9);
        QByteArrayList frames;
        TrelanFrameReader::Status status = TrelanFrameReader::NeedMoreData;
        for (int at = 0; at < stream.size(); at += chunk) {
            reader.feed(stream.mid(at, chunk));
            while ((status = reader.next()) == TrelanFrameReader::FrameReady)
                frames << (reader.kind() == TrelanFrame::Request ? "Q" : "R") + reader.payload();
        }
        QTEST(frames, "frames");
        QCOMPARE(reader.faultText(), end);
        QCOMPARE(status, end.isEmpty()                ? TrelanFrameReader::NeedMoreData
                         : end.contains(u"above the") ? TrelanFrameReader::TooLarge
                                                      : TrelanFrameReader::Malformed);
        if (!end.isEmpty()) { // and it stays so
            reader.feed("[-REPLY-]\r\n1\r\n!");
            QCOMPARE(reader.next(), status);
        }
    }
}

void tst_TrelanFrameReader::insideFrame()
{
    TrelanFrameReader reader(9);
    const QByteArray nul("[-REPLY-]\0\r\n", 12);
    for (const char c : QByteArray("[-REPLY-]\r\n2\r\nab")) {
        QCOMPARE(reader.isInsideFrame(), c != '[');
        reader.feed(QByteArray(1, c));
        QCOMPARE(reader.next(),
                 c == 'b' ? TrelanFrameReader::FrameReady : TrelanFrameReader::NeedMoreData);
    }
    QVERIFY(!reader.isInsideFrame());
    reader.feed(nul); // a NUL byte ends no text
    QCOMPARE(reader.next(), TrelanFrameReader::Malformed);
}

QTEST_APPLESS_MAIN(tst_TrelanFrameReader)
#include "tst_trelanframereader.moc"
