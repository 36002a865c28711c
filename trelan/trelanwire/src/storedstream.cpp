#include "storedstream.h"

#include "jsonreader.h"
#include "vectors.h"
#include "zstream.h"

#include <QtCore/QtEndian>

#include <zlib.h>

#include <cstring>

namespace bus::stored
{

namespace
{

constexpr int LENGTH_SIZE = 4;
constexpr int HEADER_SIZE = 2;
constexpr int BLOCK_HEADER_SIZE = 5;
constexpr int SUM_SIZE = 4;

#ifdef __x86_64__

using namespace vectors;

constexpr int BLOCK = 16;

TRELAN_VECTORS quint64 total(__m128i numbers)
{
    const __m128i halves = _mm_add_epi32(numbers, _mm_srli_si128(numbers, 8));
    return quint32(_mm_cvtsi128_si32(_mm_add_epi32(halves, _mm_srli_si128(halves, 4))));
}

/// Goes on with a sum over as many blocks as there are, and leaves them behind.
TRELAN_VECTORS quint32 sumOfBlocks(quint32 sum, const char *&from, const char *end)
{
    constexpr quint32 BASE = 65521;
    constexpr qint64 MOST_BLOCKS = 5552 / BLOCK; // before 32 bits may not hold it
    const __m128i weights = _mm_setr_epi8(16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
    quint64 bytes = sum & 0xffff;
    quint64 sums = sum >> 16; // of all the sums of bytes there were
    while (end - from >= BLOCK) {
        const qint64 blocks = qMin<qint64>((end - from) / BLOCK, MOST_BLOCKS);
        __m128i plain = _mm_setzero_si128();
        __m128i before = _mm_setzero_si128(); // each block, what was summed up
        __m128i weighted = _mm_setzero_si128();
        for (const char *const next = from + blocks * BLOCK; from != next; from += BLOCK) {
            const __m128i block = load(from);
            before = _mm_add_epi32(before, plain);
            plain = _mm_add_epi32(plain, _mm_sad_epu8(block, _mm_setzero_si128()));
            weighted = _mm_add_epi32(
                weighted, _mm_madd_epi16(_mm_maddubs_epi16(block, weights), _mm_set1_epi16(1)));
        }
        sums += bytes * quint64(blocks * BLOCK) + total(before) * BLOCK + total(weighted);
        sums %= BASE;
        bytes = (bytes + total(plain)) % BASE;
    }
    return quint32(sums << 16 | bytes);
}

#else

quint32 sumOfBlocks(quint32 sum, const char *& /*from*/, const char * /*end*/)
{
    return sum;
}

#endif

/// The blocks of a stream, one after the other.
class Blocks
{
public:
    explicit Blocks(const QByteArray &bytes)
        : _at(bytes.constData() + LENGTH_SIZE + HEADER_SIZE)
        , _end(bytes.constData() + bytes.size())
    {}

    /// False if it is no such block, or not all of it is there.
    bool next()
    {
        if (_end - _at < BLOCK_HEADER_SIZE || uchar(*_at) > 1)
            return false;
        _isLast = *_at == 1;
        _size = qFromLittleEndian<quint16>(_at + 1);
        const bool isSound = quint16(~qFromLittleEndian<quint16>(_at + 3)) == _size;
        _data = _at + BLOCK_HEADER_SIZE;
        if (!isSound || _end - _data < _size)
            return false;
        _at = _data + _size;
        return true;
    }

    bool isLast() const { return _isLast; }
    const char *data() const { return _data; }
    int size() const { return _size; }

    /// Behind the last one.
    bool hasSum(quint32 sum) const
    {
        return _end - _at >= SUM_SIZE && qFromBigEndian<quint32>(_at) == sum;
    }

private:
    const char *_at;
    const char *const _end;
    const char *_data = nullptr;
    int _size = 0;
    bool _isLast = false;
};

} // namespace

quint32 sum(const QByteArray &bytes)
{
    const char *from = bytes.constData();
    const char *const end = from + bytes.size();
    const quint32 blocks = vectors::hasVectors() ? sumOfBlocks(1, from, end) : 1;
    return quint32(adler32(blocks, reinterpret_cast<const Bytef *>(from), uInt(end - from)));
}

bool read(const QByteArray &bytes, qint64 limit, QByteArray &inflated)
{
    constexpr int FRONT = LENGTH_SIZE + HEADER_SIZE;
    if (bytes.size() < FRONT ||
        std::memcmp(bytes.constData() + LENGTH_SIZE, zstream::STORED_HEADER, HEADER_SIZE) != 0)
        return false;
    Blocks blocks(bytes);
    QByteArray data;
    data.reserve(int(qMin<qint64>(bytes.size(), limit)) + json::SPARE);
    do {
        if (!blocks.next() || data.size() + blocks.size() > limit)
            return false;
        data.append(blocks.data(), blocks.size());
    } while (!blocks.isLast());
    if (qFromBigEndian<quint32>(bytes.constData()) != quint32(data.size()) ||
        !blocks.hasSum(sum(data)))
        return false;
    inflated = data;
    return true;
}

} // namespace bus::stored
