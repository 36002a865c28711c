#include "zstream.h"

#include "jsonreader.h"

#include <QtCore/QtEndian>

#include <libdeflate.h>
#include <zlib.h>

#include <limits>
#include <memory>

namespace bus::zstream
{

namespace
{

constexpr int LENGTH_SIZE = 4;
constexpr int FIRST_CHUNK = 1024;
constexpr int SMALLEST_CHUNK = 64;
// JSON usually inflates to four to eight times its size.
constexpr qint64 USUAL_GROWTH = 4;
// Qt refuses a declared length that a QByteArray could not hold, whatever the stream inflates to.
constexpr quint32 MAX_DECLARED =
    quint32(std::numeric_limits<int>::max()) - quint32(sizeof(QArrayData));

/// zlib's interface knows no const for what it reads.
Bytef *input(const char *bytes)
{
    return reinterpret_cast<Bytef *>(const_cast<char *>(bytes));
}

/// Makes Qt's form of compressed data with a stream that is set up once and used again.
class Deflater
{
public:
    /// \a level of zlib.
    explicit Deflater(int level)
        : _level(level)
        , _ready(deflateInit(&_stream, level) == Z_OK)
    {}
    ~Deflater() { deflateEnd(&_stream); }
    Q_DISABLE_COPY(Deflater)

    QByteArray compress(const QByteArray &bytes);

private:
    const int _level;
    z_stream _stream {};
    bool _ready = false;
};

QByteArray Deflater::compress(const QByteArray &bytes)
{
    if (!_ready || bytes.isEmpty() || deflateReset(&_stream) != Z_OK)
        return qCompress(bytes, _level);

    const uLong bound = deflateBound(&_stream, uLong(bytes.size()));
    QByteArray out(LENGTH_SIZE + int(bound), Qt::Uninitialized);
    qToBigEndian(quint32(bytes.size()), out.data());
    _stream.next_in = input(bytes.constData());
    _stream.avail_in = uInt(bytes.size());
    _stream.next_out = reinterpret_cast<Bytef *>(out.data()) + LENGTH_SIZE;
    _stream.avail_out = uInt(bound);
    if (deflate(&_stream, Z_FINISH) != Z_STREAM_END)
        return qCompress(bytes, _level);
    out.resize(LENGTH_SIZE + int(_stream.total_out));
    return out;
}

} // namespace

QByteArray compress(const QByteArray &bytes)
{
    static thread_local Deflater _deflater(Z_DEFAULT_COMPRESSION);
    return _deflater.compress(bytes);
}

void appendStored(QByteArray &out, const QByteArray &bytes, bool last)
{
    constexpr int LARGEST_BLOCK = 65535;
    constexpr int HEADER_SIZE = 5;
    int done = 0;
    do {
        const auto size = quint16(qMin(bytes.size() - done, LARGEST_BLOCK));
        const bool ends = last && done + size == bytes.size();
        char header[HEADER_SIZE] = {char(ends)};
        qToLittleEndian(size, header + 1);
        qToLittleEndian(quint16(~size), header + 3);
        out.append(header, HEADER_SIZE);
        out.append(bytes.constData() + done, size);
        done += size;
    } while (done < bytes.size());
}

void appendBigEndian(QByteArray &out, quint32 number)
{
    char bytes[sizeof number];
    qToBigEndian(number, bytes);
    out.append(bytes, sizeof bytes);
}

quint32 sum(const QByteArray &bytes)
{
    return libdeflate_adler32(1, bytes.constData(), size_t(bytes.size()));
}

namespace
{

void store(const QByteArray &bytes, QByteArray &out)
{
    constexpr int AROUND = 64;
    constexpr int SHARE = 8192; // more bytes than that for each block header
    out.reserve(out.size() + bytes.size() + bytes.size() / SHARE + AROUND);
    appendBigEndian(out, quint32(bytes.size()));
    out += STORED_HEADER;
    appendStored(out, bytes, true);
    appendBigEndian(out, sum(bytes));
}

} // namespace

void storeOrCompress(const QByteArray &bytes, QByteArray &out)
{
    if (bytes.size() <= STORED_SIZE)
        return store(bytes, out);
    static thread_local Deflater _deflater(Z_BEST_SPEED);
    out += _deflater.compress(bytes);
}

namespace
{

/// Whether the first block is a stored one. What it inflates to is at most as large as the stream
/// then, if all others are stored, too.
bool beginsStored(const QByteArray &bytes)
{
    constexpr int FIRST_BLOCK = LENGTH_SIZE + 2;
    constexpr char TYPE = 0x06;
    return bytes.size() > FIRST_BLOCK && (bytes.at(FIRST_BLOCK) & TYPE) == 0;
}

/// Reads a stream of stored blocks that inflates to what it declares, or to less. False for any
/// other stream, which zlib has to judge.
bool copyStored(const QByteArray &bytes, qint64 limit, QByteArray &inflated)
{
    if (!beginsStored(bytes))
        return false;
    const auto declared = qFromBigEndian<quint32>(bytes.constData());
    if (declared > quint32(bytes.size()) || declared > limit)
        return false;
    static thread_local const std::unique_ptr<libdeflate_decompressor,
                                              decltype(&libdeflate_free_decompressor)>
        _decompressor(libdeflate_alloc_decompressor(), &libdeflate_free_decompressor);
    if (!_decompressor)
        return false;
    inflated.reserve(int(declared) + json::SPARE);
    inflated.resize(int(declared));
    size_t size = 0;
    const auto result = libdeflate_zlib_decompress(
        _decompressor.get(), bytes.constData() + LENGTH_SIZE, size_t(bytes.size() - LENGTH_SIZE),
        inflated.data(), size_t(declared), &size);
    inflated.resize(int(size));
    return result == LIBDEFLATE_SUCCESS;
}

/// A zlib stream that is set up once and used again.
class Inflater
{
public:
    Inflater()
        : _ready(inflateInit(&_stream) == Z_OK)
    {}
    ~Inflater() { inflateEnd(&_stream); }
    Q_DISABLE_COPY(Inflater)

    Outcome uncompress(const QByteArray &bytes, qint64 limit, QByteArray &inflated);

private:
    Outcome inflateAll(qint64 declared, qint64 limit, QByteArray &inflated);

    z_stream _stream {};
    bool _ready = false;
};

Outcome Inflater::uncompress(const QByteArray &bytes, qint64 limit, QByteArray &inflated)
{
    if (!_ready || bytes.size() <= LENGTH_SIZE || inflateReset(&_stream) != Z_OK)
        return Damaged;
    const auto declared = qFromBigEndian<quint32>(bytes.constData());
    if (declared >= MAX_DECLARED)
        return Damaged;

    _stream.next_in = input(bytes.constData()) + LENGTH_SIZE;
    _stream.avail_in = uInt(bytes.size() - LENGTH_SIZE);
    return inflateAll(declared, qMin<qint64>(limit, MAX_DECLARED - 1), inflated);
}

Outcome Inflater::inflateAll(qint64 declared, qint64 limit, QByteArray &inflated)
{
    // One byte beyond the limit is asked for, to tell a result that just fits from one that does
    // not.
    const qint64 most = limit + 1;
    // The first guess is made from what has arrived, never from what it declares to be, which may
    // only make it smaller.
    const qint64 guess = qMax<qint64>(FIRST_CHUNK, _stream.avail_in * USUAL_GROWTH);
    const qint64 first = qBound<qint64>(SMALLEST_CHUNK, declared + 1, guess);
    int filled = 0;
    int status = Z_OK;
    while (status != Z_STREAM_END) {
        if (filled == inflated.size()) {
            if (filled > limit)
                return TooLarge;
            // Reserved first: resize() alone takes the next power of two, which is past the limit.
            // What is behind it lets JSON be read where it is.
            const int size = int(qMin<qint64>(most, qMax<qint64>(first, filled * 2LL)));
            inflated.reserve(int(qMin<qint64>(size + qint64(json::SPARE), MAX_DECLARED)));
            inflated.resize(size);
        }
        _stream.next_out = reinterpret_cast<Bytef *>(inflated.data()) + filled;
        _stream.avail_out = uInt(inflated.size() - filled);
        status = inflate(&_stream, Z_NO_FLUSH);
        if (status != Z_OK && status != Z_STREAM_END)
            return Damaged; // a stream that was cut off ends here too, as Z_BUF_ERROR
        filled = inflated.size() - int(_stream.avail_out);
    }
    if (filled > limit)
        return TooLarge;
    inflated.resize(filled);
    return Done;
}

} // namespace

Outcome uncompress(const QByteArray &bytes, qint64 limit, QByteArray &inflated)
{
    inflated.clear();
    if (bytes.size() > LENGTH_SIZE && copyStored(bytes, limit, inflated))
        return Done;
    static thread_local Inflater _inflater;
    return _inflater.uncompress(bytes, limit, inflated);
}

} // namespace bus::zstream
