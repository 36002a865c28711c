#pragma once

#include <QtCore/QByteArray>

#include <zlib.h>

#include <cstddef>
#include <vector>

/// What qCompress() makes and qUncompress() reads: four bytes of length, big-endian, and a zlib
/// stream. Internal to the libraries; the functions are thread-safe.
namespace bus::zstream
{

// Compressing takes three times as long as handling the bytes that it saves, at every size. Larger
// texts are compressed all the same, or they would come near the limits of payloads and queues.
constexpr int STORED_SIZE = 1024 * 1024;

/// What qCompress(\a bytes) returns, to the byte, from a compressor that each thread sets up once.
QByteArray compress(const QByteArray &bytes);

/// Appends \a bytes in Qt's form: stored up to STORED_SIZE, and compressed fast above it.
void storeOrCompress(const QByteArray &bytes, QByteArray &out);

/// The parts of a stream of stored blocks: after four bytes of length come the header, the blocks,
/// of which one is empty if there are no bytes, and the sum, big-endian.
constexpr char STORED_HEADER[] = "\x78\x01";
void appendStored(QByteArray &out, const QByteArray &bytes, bool last);
void appendBigEndian(QByteArray &out, quint32 number);
/// zlib's adler32() over \a bytes.
quint32 sum(const QByteArray &bytes);

enum Outcome { Done, Damaged, TooLarge };

/// \brief Reads Qt's form of compressed data, as tolerantly as qUncompress(): the declared length
/// need not be right, and bytes behind the stream mean nothing.
///
/// \a inflated is only meaningful when the outcome is Done. It never takes more than a small
/// multiple of what has arrived or been inflated, nor more than \a limit and one byte. There is
/// room behind the bytes in which JSON is read.
Outcome uncompress(const QByteArray &bytes, qint64 limit, QByteArray &inflated);

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

} // namespace bus::zstream
