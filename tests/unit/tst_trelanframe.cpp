#include <trelanerror.h>
#include <trelanframe.h>
#include <trelanframereader.h>

#include <QtTest/QtTest>

#include <zlib.h>

#include <random>
#include <thread>

using bus::TrelanError;
using bus::TrelanFrame;
using bus::TrelanFrameReader;

namespace
{

QByteArray goldenFile(const QString &name)
{
    QFile file(QStringLiteral(TRELAN_GOLDEN_DIR "/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Text, noise or one byte over and over, changing every few hundred bytes.
QByteArray someBytes(std::mt19937 &random, int size)
{
    QByteArray bytes;
    while (bytes.size() < size) {
        const quint32 style = random();
        for (int left = int(1 + random() % 700); left > 0; --left)
            bytes +=
                style % 3 == 0 ? char(random()) : "host.box \"load\": "[random() % (style % 18)];
    }
    return bytes.left(size);
}

/// Size of the first input that is not compressed as Qt does it; 0 if there is none.
int compressedOtherwise(quint32 seed)
{
    std::mt19937 random(seed);
    for (int round = 0; round < 120; ++round) {
        const int largest = 1 << (1 + random() % 15);
        const QByteArray bytes =
            someBytes(random, round == 60 ? 1 << 21 : int(1 + random() % largest));
        if (TrelanFrame::compress(bytes) != qCompress(bytes, -1))
            return bytes.size();
    }
    return 0;
}

/// Qt's form of 300 MB of zeros, made without ever having them.
QByteArray bomb()
{
    QByteArray zeros(1 << 20, '\0');
    QByteArray out(1 << 19, '\0');
    z_stream stream {};
    deflateInit(&stream, Z_DEFAULT_COMPRESSION);
    stream.next_out = reinterpret_cast<Bytef *>(out.data()) + 4;
    stream.avail_out = uInt(out.size() - 4);
    for (int left = 300; left > 0; --left) {
        stream.next_in = reinterpret_cast<Bytef *>(zeros.data());
        stream.avail_in = uInt(zeros.size());
        deflate(&stream, left == 1 ? Z_FINISH : Z_NO_FLUSH);
    }
    out.truncate(4 + int(stream.total_out));
    deflateEnd(&stream);
    return out;
}

/// Most memory that this process ever had, in MB.
int peak()
{
    QFile file(QStringLiteral("/proc/self/status"));
    file.open(QIODevice::ReadOnly);
    const QByteArray status = file.readAll();
    return status.mid(status.indexOf("VmPeak:") + 7, 16).trimmed().split(' ').first().toInt() /
           1024;
}

} // namespace

class tst_TrelanFrame : public QObject
{
    Q_OBJECT

private slots:
    void golden_data()
    {
        QTest::addColumn<QJsonObject>("row");
        const QJsonArray rows =
            QJsonDocument::fromJson(goldenFile(QStringLiteral("index.json"))).array();
        QVERIFY(!rows.isEmpty());
        for (const QJsonValue row : rows)
            QTest::newRow(qPrintable(row[u"name"].toString())) << row.toObject();
    }

    void golden()
    {
        QFETCH(QJsonObject, row);
        const QByteArray frame =
            goldenFile(QStringLiteral("frames/%1.bin").arg(row[u"name"].toString()));
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

        const QString operation = envelope[QStringLiteral("operation")].toString();
        const QVariantMap data = envelope[QStringLiteral("data")].toMap();
        const QJsonObject result = QJsonObject::fromVariantMap(envelope)[u"result"].toObject();
        const TrelanError error(TrelanError::Error(result[u"code"].toInt()),
                                result[u"description"].toString());
        const QByteArray ours =
            result.isEmpty()
                ? TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(operation, data))
                : TrelanFrame::encode(TrelanFrame::Reply,
                                      TrelanFrame::reply(operation, error, data));
        const QByteArray payload = qCompress(row[u"json"].toString().toUtf8()).toBase64();
        QCOMPARE(ours, (result.isEmpty() ? "[-REQUEST-]\r\n" : "[-REPLY-]\r\n") +
                           QByteArray::number(payload.size()) + "\r\n" + payload);
    }

    void compressesAsQtDoes()
    {
        int failed[3] = {-1, -1, -1};
        std::thread first([&failed] { failed[0] = compressedOtherwise(1); });
        std::thread second([&failed] { failed[1] = compressedOtherwise(2); });
        failed[2] = compressedOtherwise(3);
        first.join();
        second.join();
        for (int size : failed)
            QCOMPARE(size, 0);
        QCOMPARE(TrelanFrame::compress({}), qCompress(QByteArray()));
    }

    void acceptsWhatQtAccepts()
    {
        const QtMessageHandler loud =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        std::mt19937 random(4);
        int accepted = 0, different = 0;
        for (int round = 0; round < 20000; ++round) {
            QByteArray bytes =
                qCompress(someBytes(random, int(random() % 3000)), int(random() % 10));
            for (quint32 edits = random() % 3; edits > 0; --edits) {
                const int at = int(random() % quint32(bytes.size()));
                switch (random() % 4) {
                case 0:
                    bytes[at] = char(random());
                    break;
                case 1:
                    bytes.truncate(at);
                    bytes += bytes.isEmpty() ? "x" : "";
                    break;
                case 2:
                    bytes.insert(at, char(random()));
                    break;
                default:
                    bytes[qMin(3, bytes.size() - 1)] = char(random());
                    break;
                }
            }
            bytes[0] = '\0'; // Qt takes the declared length at once
            TrelanFrame::Fault fault = TrelanFrame::NotJson;
            const QByteArray inflated = TrelanFrame::uncompress(bytes, 1 << 30, &fault);
            different += inflated != qUncompress(bytes);
            accepted += fault == TrelanFrame::NoFault;
        }
        qInstallMessageHandler(loud);
        QCOMPARE(different, 0);
        QVERIFY2(accepted > 5000 && accepted < 15000, qPrintable(QString::number(accepted)));
    }

    void stopsAtTheLimit()
    {
        for (const int limit : {1, 1023, 1024, 1025, 4096, 1000000}) {
            TrelanFrame::Fault fault = TrelanFrame::NotJson;
            const QByteArray fits(limit, 'x');
            QCOMPARE(TrelanFrame::uncompress(qCompress(fits), limit, &fault), fits);
            QCOMPARE(fault, TrelanFrame::NoFault);
            QVERIFY(TrelanFrame::uncompress(qCompress(fits + 'x'), limit, &fault).isEmpty());
            QCOMPARE(fault, TrelanFrame::TooLarge);
        }
    }

    void takesNoMoreMemoryThanTheLimit()
    {
        const QByteArray bytes = bomb();
        QByteArray liar = qCompress("{}");
        liar.replace(0, 4, QByteArray::fromHex("7fffffe0"));
        const int before = peak();
        const qint64 limit = 16 << 20;
        QCOMPARE(TrelanFrame::decodePayload(bytes.toBase64(), limit).fault, TrelanFrame::TooLarge);
        QCOMPARE(TrelanFrame::decodePayload(liar.toBase64()).json, QByteArray("{}"));
        const int taken = peak() - before;
        QVERIFY2(taken < 64, qPrintable(QString::number(taken)));
    }
};

QTEST_APPLESS_MAIN(tst_TrelanFrame)
#include "tst_trelanframe.moc"
