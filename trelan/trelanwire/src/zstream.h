#pragma once

#include <QtCore/QByteArray>

#include <zlib.h>

/// zlib streams that are set up once and used again. Internal to the library; one thread each.
namespace bus::zstream
{

// Compressing takes three times what its bytes save in base64 and sockets, at every size. What is
// larger than this would come near the limits of payloads and queues.
constexpr int STORED_SIZE = 1024 * 1024;

/// Makes Qt's form of compressed data: four bytes of length, big-endian, and a zlib stream.
class Deflater
{
public:
    /// \a level of zlib.
    explicit Deflater(int level);
    ~Deflater();
    Q_DISABLE_COPY(Deflater)

    QByteArray compress(const QByteArray &bytes);

private:
    const int _level;
    z_stream _stream {};
    bool _ready = false;
};

/// Qt's form of compressed data around bytes that are not compressed.
QByteArray store(const QByteArray &bytes);
/// The same, appended.
void store(const QByteArray &bytes, QByteArray &out);

/// What it consists of: the length, the header, blocks, of nothing one that is empty, and the sum.
constexpr char STORED_HEADER[] = "\x78\x01";
void appendStored(QByteArray &out, const QByteArray &bytes, bool last);
void appendBigEndian(QByteArray &out, quint32 number);

/// Reads Qt's form of compressed data.
class Inflater
{
public:
    enum Outcome { Done, Damaged, TooLarge };

    Inflater();
    ~Inflater();
    Q_DISABLE_COPY(Inflater)

    /// \a inflated is only meaningful when the outcome is Done; it never takes more than a small
    /// multiple of what has arrived or been inflated, nor more than \a limit and one byte.
    Outcome uncompress(const QByteArray &bytes, qint64 limit, QByteArray &inflated);

private:
    Outcome inflateAll(qint64 declared, qint64 limit, QByteArray &inflated);

    z_stream _stream {};
    bool _ready = false;
};

} // namespace bus::zstream
