#include "delivery/sharedpayload.h"

#include <base64.h>
#include <storedstream.h>
#include <zstream.h>

namespace bus
{

namespace
{

constexpr int GROUP = 3;       // bytes that base64 makes characters of together
constexpr int HEADER_SIZE = 6; // declared length, and header of the zlib stream
constexpr int LEVEL = Z_BEST_SPEED;

static_assert(HEADER_SIZE % GROUP == 0, "what follows the header has to begin a group");

const Bytef *bytesOf(const QByteArray &bytes)
{
    return reinterpret_cast<const Bytef *>(bytes.constData());
}

/// A stream without header and trailer, set up once for each thread.
class BlockDeflater
{
public:
    BlockDeflater()
        : _ready(deflateInit2(&_stream, LEVEL, Z_DEFLATED, -MAX_WBITS, MEMORY_LEVEL,
                              Z_DEFAULT_STRATEGY) == Z_OK)
    {}
    ~BlockDeflater() { deflateEnd(&_stream); }
    Q_DISABLE_COPY(BlockDeflater)

    /// Compressed blocks that end with a whole byte, and do not end the stream. Nothing if there is
    /// no memory for it.
    QByteArray blocks(const QByteArray &bytes)
    {
        if (!_ready || deflateReset(&_stream) != Z_OK)
            return {};
        constexpr int FLUSH_SIZE = 16;
        QByteArray out(int(deflateBound(&_stream, uLong(bytes.size()))) + FLUSH_SIZE,
                       Qt::Uninitialized);
        _stream.next_in = const_cast<Bytef *>(bytesOf(bytes)); // zlib's interface knows no const
        _stream.avail_in = uInt(bytes.size());
        _stream.next_out = reinterpret_cast<Bytef *>(out.data());
        _stream.avail_out = uInt(out.size());
        const bool done = deflate(&_stream, Z_SYNC_FLUSH) == Z_OK && _stream.avail_in == 0 &&
                          _stream.avail_out > 0;
        out.resize(done ? int(_stream.total_out) : 0);
        return out;
    }

private:
    static constexpr int MEMORY_LEVEL = 8; // zlib's own

    z_stream _stream {};
    bool _ready;
};

} // namespace

SharedPayload::SharedPayload(const QByteArray &beginning)
    : _size(beginning.size())
    , _sum(stored::sum(beginning))
{
    QByteArray blocks;
    if (beginning.size() > zstream::STORED_SIZE) {
        static thread_local BlockDeflater _deflater;
        blocks = _deflater.blocks(beginning);
    }
    if (blocks.isEmpty())
        zstream::appendStored(blocks, beginning, false);
    const int whole = blocks.size() / GROUP * GROUP;
    base64::append(_base64, blocks.left(whole));
    _rest = blocks.mid(whole);
}

QByteArray SharedPayload::frame(TrelanFrame::Kind kind, const QByteArray &ending) const
{
    QByteArray head;
    zstream::appendBigEndian(head, quint32(_size + ending.size()));
    head += zstream::STORED_HEADER;

    QByteArray tail = _rest;
    zstream::appendStored(tail, ending, true);
    const uLong endingSum = adler32(1, bytesOf(ending), uInt(ending.size()));
    zstream::appendBigEndian(tail, quint32(adler32_combine(_sum, endingSum, ending.size())));

    QByteArray payload;
    payload.reserve(base64::encodedSize(head.size()) + _base64.size() +
                    base64::encodedSize(tail.size()));
    base64::append(payload, head);
    payload += _base64;
    base64::append(payload, tail);
    return TrelanFrame::frame(kind, payload);
}

} // namespace bus
