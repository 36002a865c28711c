#include "testsupport.h"

#include <trelanframereader.h>

using namespace bus;

class tst_TrelanFrameReader : public QObject
{
    Q_OBJECT

private slots:
    void anyChunking_data() { addTestRows("streams.json"); }

    void anyChunking()
    {
        QFETCH(QJsonObject, row);
        const QByteArray stream = row[u"stream"].toString().toLatin1();
        const QString fault = row[u"fault"].toString();
        // The connection may cut the stream anywhere.
        for (int chunk = 1; chunk <= stream.size(); ++chunk) {
            TrelanFrameReader reader(9);
            QStringList frames;
            TrelanFrameReader::Status status = TrelanFrameReader::NeedMoreData;
            for (int at = 0; at < stream.size(); at += chunk) {
                reader.feed(stream.mid(at, chunk));
                while ((status = reader.next()) == TrelanFrameReader::FrameReady)
                    frames << TrelanFrame::headerWord(reader.kind()) +
                                  QString::fromLatin1(reader.payload());
            }
            QCOMPARE(frames, row[u"frames"].toVariant().toStringList());
            QCOMPARE(reader.faultText(), fault);
            QCOMPARE(reader.isInsideFrame(), row[u"inside"].toBool());
            QCOMPARE(status, fault.isEmpty()                ? TrelanFrameReader::NeedMoreData
                             : fault.contains(u"above the") ? TrelanFrameReader::TooLarge
                                                            : TrelanFrameReader::Malformed);
            reader.feed("[-REPLY-]\r\n1\r\n!");
            QVERIFY(fault.isEmpty() || reader.next() == status); // a fault stays
        }
    }
};

QTEST_APPLESS_MAIN(tst_TrelanFrameReader)
#include "tst_trelanframereader.moc"
