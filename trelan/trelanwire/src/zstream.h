#pragma once

#include <QtCore/QByteArray>

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

} // namespace bus::zstream
