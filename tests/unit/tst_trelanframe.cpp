#include "logcapture.h"
#include "testsupport.h"
#include "testtable.h"

#include <base64.h>
#include <envelopewriter.h>
#include <frameformat.h>
#include <sharedbeginning.h>
#include <trelanerror.h>
#include <trelanframereader.h>
#include <wirekeys.h>
#include <zstream.h>

#include <future>
#include <random>

using namespace bus;

Q_DECLARE_METATYPE(base64::Way)

namespace
{

/// Bytes that change every few hundred between text, noise and one repeated byte.
QByteArray someBytes(std::mt19937 &random, int size)
{
    QByteArray bytes;
    while (bytes.size() < size) {
        const quint32 style = random();
        for (int left = int(1 + random() % 700); left > 0; --left)
            bytes += style % 3 ? "host.box \"load\": "[random() % (style % 18)] : char(random());
    }
    return bytes.left(size);
}

/// The size of the first input whose compression differs from that of Qt; 0 if none does.
int compressedOtherwise(quint32 seed)
{
    std::mt19937 random(seed);
    for (int round = 0; round < 120; ++round) {
        const int largest = round == 60 ? 1 << 21 : 1 << (1 + random() % 15);
        const QByteArray bytes = someBytes(random, largest - int(random() % 2));
        if (zstream::compress(bytes) != qCompress(bytes, -1))
            return bytes.size();
    }
    return 0;
}

QByteArray stored(const QByteArray &bytes)
{
    QByteArray out;
    zstream::storeOrCompress(bytes, out);
    return out;
}

/// Empty if it cannot be done.
QByteArray uncompressed(const QByteArray &bytes, qint64 limit)
{
    QByteArray inflated;
    return zstream::uncompress(bytes, limit, inflated) == zstream::Done ? inflated : QByteArray();
}

} // namespace

class tst_TrelanFrame : public QObject
{
    Q_OBJECT

private slots:
    void takesNoMoreMemoryThanTheLimit() // has to run first, since a peak of memory stays
    {
        const QByteArray bomb = testData("bomb.b64"); // 32 MB of zeros
        QByteArray liar = qCompress("{}");
        liar.replace(0, 4, QByteArray::fromHex("7fffffe0"));
        const int before = peakMemory();
        const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(bomb, 1 << 20);
        QCOMPARE(decoded.fault, TrelanFrame::TooLarge);
        QCOMPARE(decoded.errorText, "too large: inflates to more than 1048576 bytes");
        QCOMPARE(TrelanFrame::decodePayload(liar.toBase64()).json, QByteArray("{}"));
        const int taken = peakMemory() - before;
        QVERIFY2(taken < 16 * 1024, qPrintable(QString::number(taken)));
    }

    void golden_data() { addTestRows("index.json"); }

    void golden()
    {
        QFETCH(QJsonObject, row);
        const QByteArray frame = testData(QString("frames/%1.bin").arg(row[u"name"].toString()));
        const QVariantMap envelope = row[u"envelope"].toObject().toVariantMap();

        TrelanFrameReader reader(frame.size());
        reader.feed(frame);
        QCOMPARE(reader.next(), TrelanFrameReader::FrameReady);
        const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(reader.payload());
        QCOMPARE(int(decoded.fault), row[u"fault"].toInt());
        QCOMPARE(decoded.errorText, row[u"error"].toString());
        QCOMPARE(decoded.envelope, envelope);
        if (!row[u"written"].toBool())
            return;

        const QString operation = envelope["operation"].toString();
        const QVariantMap data = envelope["data"].toMap();
        const QVariantMap result = envelope["result"].toMap();
        const auto code = TrelanError::Error(result["code"].toInt());
        const TrelanError error(code, result["description"].toString());
        const QVariantMap built = result.isEmpty() ? TrelanFrame::request(operation, data)
                                                   : TrelanFrame::reply(operation, error, data);
        const QByteArray payload = qCompress(row[u"json"].toString().toUtf8()).toBase64();
        const QByteArray lines = TrelanFrame::headerWord(reader.kind()).toLatin1() + "\r\n" +
                                 QByteArray::number(payload.size()) + "\r\n";
        QCOMPARE(TrelanFrame::encode(reader.kind(), built), lines + payload);

        const QByteArray light = TrelanFrame::encodePayload(built, TrelanTransport::Light);
        QCOMPARE(QString::fromUtf8(qUncompress(QByteArray::fromBase64(light))),
                 row[u"compact"].toString());
        QCOMPARE(light, row[u"light"].toString().toLatin1());
    }

    void envelopesWithoutAMap()
    {
        QByteArray beginning, ending;
        EnvelopeWriter(beginning)
            .begin(keys::DATA)
            .raw(keys::OBJECT_CONTENT, "[1]")
            .time(keys::TIME, -5)
            .text(keys::OBJECT_NAME, QByteArray("room 1"))
            .beginning();
        EnvelopeWriter(ending, 2)
            .begin(std::string(100, 'k')) // more than an empty array has room for
            .end()
            .text(keys::UID, QString("\t"))
            .end()
            .success()
            .finish();
        QByteArray expected = "{'data':{'cnt':[1],'dt':'-5','nm':'room 1','" +
                              QByteArray(100, 'k') +
                              "':{},'uid':'\\t'},'result':{'code':0,'description':''}}";
        QCOMPARE(beginning + ending, expected.replace('\'', '"'));
    }

    void compressesAsQtDoes()
    {
        auto first = std::async(std::launch::async, compressedOtherwise, 1U);
        auto second = std::async(std::launch::async, compressedOtherwise, 2U);
        QCOMPARE(compressedOtherwise(3), 0);
        QCOMPARE(first.get() + second.get(), 0);
        QCOMPARE(zstream::compress({}), qCompress(QByteArray()));
    }

    void lightIsReadByAll()
    {
        std::mt19937 random(7);
        for (const int size : {1, 65535, 65536, 131070, 131071, 1 << 20, (1 << 20) + 1}) {
            const QByteArray bytes = someBytes(random, size);
            QVERIFY(qUncompress(stored(bytes)) == bytes);
        }
    }

    void sharedBeginnings()
    {
        std::mt19937 random(8);
        for (const int size : {0, 1, 2, 3, 65535, 65536, 1 << 20, (1 << 20) + 1}) {
            const QByteArray beginning = someBytes(random, size);
            const SharedBeginning shared(beginning);
            for (const int more : {0, 1, 2, 70000}) {
                const QByteArray ending = someBytes(random, more);
                TrelanFrameReader reader(1 << 24);
                reader.feed(shared.frame(frameformat::REPLY, ending));
                QCOMPARE(reader.next(), TrelanFrameReader::FrameReady);
                QCOMPARE(reader.kind(), TrelanFrame::Reply);
                const QByteArray text = qUncompress(QByteArray::fromBase64(reader.payload()));
                QVERIFY(text == beginning + ending);
            }
        }
    }

    void base64AsQtDoesIt_data()
    {
        const TestTable<base64::Way> row("way");
        row("fastest", base64::Fastest);
        row("portable", base64::Portable);
    }

    void base64AsQtDoesIt()
    {
        QFETCH(const base64::Way, way);
        std::mt19937 random(6);
        const QByteArray characters = "AZaz09+/=-_ \r\n\xff";
        for (int round = 0; round < 20000; ++round) {
            const QByteArray bytes = someBytes(random, int(random() % 90));
            QByteArray text = "in front";
            base64::append(text, bytes, way);
            QCOMPARE(text, "in front" + bytes.toBase64());
            QCOMPARE(text.size(), 8 + base64::encodedSize(bytes.size()));
            text.remove(0, 8);
            for (quint32 edits = random() % 3; edits > 0 && !text.isEmpty(); --edits)
                text.replace(int(random() % quint32(text.size())), int(random() % 3),
                             characters.mid(int(random() % quint32(characters.size())), 1));
            QCOMPARE(base64::decode(text, way), QByteArray::fromBase64(text));
        }
        // Every byte value at every place of a block.
        for (int place = 0; place < 64; ++place) {
            for (int byte = 0; byte < 256; ++byte) {
                QByteArray text = QByteArray("AZaz09+/").repeated(8);
                text[place] = char(byte);
                QCOMPARE(base64::decode(text, way), QByteArray::fromBase64(text));
            }
        }
    }

    void acceptsWhatQtAccepts()
    {
        const LogCapture quiet; // Qt logs what it refuses
        std::mt19937 random(4);
        int accepted = 0, different = 0;
        for (int round = 0; round < 10000; ++round) {
            QByteArray bytes = qCompress(someBytes(random, random() % 3000), random() % 10);
            for (quint32 edits = random() % 3; edits > 0; --edits) {
                const int at = int(random() % quint32(bytes.size()));
                bytes.replace(at, random() % 3, QByteArray(1 + random() % 2, char(random())));
                bytes.truncate(random() % 8 ? bytes.size() : at + 1);
            }
            bytes[0] = '\0'; // Qt takes the declared length at once
            const QByteArray inflated = uncompressed(bytes, 1 << 30);
            different += inflated != qUncompress(bytes);
            accepted += !inflated.isEmpty();
        }
        QCOMPARE(different, 0);
        QVERIFY2(accepted > 2500 && accepted < 7500, qPrintable(QString::number(accepted)));
    }

    void storedBlocksAsZlibReadsThem()
    {
        const LogCapture quiet;
        std::mt19937 random(7);
        int accepted = 0, different = 0;
        for (int round = 0; round < 4000; ++round) {
            // High bytes make the sums that overflow first.
            const int size = round % 40 ? int(random() % 300) : 60000 + int(random() % 20000);
            const QByteArray text = round % 2 ? QByteArray(size, '\xff') : someBytes(random, size);
            QByteArray bytes = stored(text);
            bytes += QByteArray(int(random() % 2), 'x'); // which means nothing
            for (quint32 edits = random() % 2; edits > 0; --edits)
                bytes[1 + int(random() % quint32(qMin(bytes.size() - 1, 40)))] = char(random());
            for (quint32 cuts = random() % 5; cuts == 1; --cuts)
                bytes.chop(int(random() % 8));
            const QByteArray inflated = uncompressed(bytes, 1 << 20);
            different += inflated != qUncompress(bytes);
            accepted += !inflated.isEmpty();
        }
        QCOMPARE(different, 0);
        QVERIFY2(accepted > 1000 && accepted < 3500, qPrintable(QString::number(accepted)));
    }

    void stopsAtTheLimit()
    {
        for (const int limit : {1, 1023, 1024, 1025, 4096, 1000000}) {
            const QByteArray fits(limit, 'x');
            for (const int level : {0, 9}) {
                QByteArray inflated;
                QCOMPARE(uncompressed(qCompress(fits, level), limit), fits);
                QCOMPARE(zstream::uncompress(qCompress(fits + 'x', level), limit, inflated),
                         zstream::TooLarge);
            }
        }
    }
};

QTEST_APPLESS_MAIN(tst_TrelanFrame)
#include "tst_trelanframe.moc"
