#pragma once

#include <QtCore/QByteArray>

#include <zlib.h>

#include <cstddef>
#include <vector>

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

/// What streams have given back, for the next: a copy of one takes 270 KB, and to get that from the
/// system takes longer than to fill it.
class Memory
{
public:
    Memory() = default;
    ~Memory();
    Q_DISABLE_COPY(Memory)

    /// Has \a stream, which is not set up yet and does not outlive this, take its memory from here.
    void serve(z_stream &stream);

private:
    struct Block;
    static void *take(void *memory, uInt items, uInt size);
    static void giveBack(void *memory, void *address);

    static constexpr size_t MOST_KEPT = 8; // a stream has five
    std::vector<Block *> _kept;
};

/// \brief A stream that goes on in more than one way: what all begin with is compressed once.
///
/// Whatever comes out is what Deflater makes of beginning and ending in one go. Takes 540 KB.
class BranchingDeflater
{
public:
    BranchingDeflater();
    ~BranchingDeflater();
    Q_DISABLE_COPY(BranchingDeflater)

    /// How much of a beginning of that size begin() may be given. Where its input ends less than a
    /// match before its window is full, zlib may make room in there earlier than it would have.
    static int safePart(int size);
    /// Takes the beginning of the streams that follow. What it has written of it so far goes into
    /// \a out. False if there is no memory.
    bool begin(const QByteArray &bytes, QByteArray &out);
    /// Appends what is behind that if \a ending follows.
    bool finish(const QByteArray &ending, QByteArray &out);

private:
    Memory _memory;
    z_stream _stream {};
    bool _ready;
};

/// The same form around bytes that are not compressed.
QByteArray store(const QByteArray &bytes);
/// The same, appended.
void store(const QByteArray &bytes, QByteArray &out);

/// Appends \a bytes in Qt's form: as they are up to STORED_SIZE, and compressed fast above it.
void storeOrCompress(const QByteArray &bytes, QByteArray &out);

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
