#include "sharedbeginning.h"

#include "base64.h"
#include "frameformat.h"
#include "zstream.h"

#include <zlib.h>

namespace bus
{

namespace
{

constexpr int GROUP = 3;       // bytes that become whole characters of base64
constexpr int HEADER_SIZE = 6; // the declared length and the header of the zlib stream
static_assert(HEADER_SIZE % GROUP == 0, "what follows the header has to begin a group");

const Bytef *bytesOf(const QByteArray &bytes)
{
    return reinterpret_cast<const Bytef *>(bytes.constData());
}

/// Compresses to blocks without a header and a trailer around them.
class BlockDeflater
{
public:
    BlockDeflater()
        : _ready(deflateInit2(&_stream, Z_BEST_SPEED, Z_DEFLATED, -MAX_WBITS, MEMORY_LEVEL,
                              Z_DEFAULT_STRATEGY) == Z_OK)
    {}
    ~BlockDeflater() { deflateEnd(&_stream); }
    Q_DISABLE_COPY(BlockDeflater)

    /// Blocks that end with a whole byte and do not end the stream. Empty if there is no memory.
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
    static constexpr int MEMORY_LEVEL = 8; // zlib's default

    z_stream _stream {};
    bool _ready;
};

} // namespace

SharedBeginning::SharedBeginning(const QByteArray &beginning)
    : _size(beginning.size())
    , _sum(zstream::sum(beginning))
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

QByteArray SharedBeginning::frame(std::string_view word, const QByteArray &ending) const
{
    QByteArray head;
    zstream::appendBigEndian(head, quint32(_size + ending.size()));
    head += zstream::STORED_HEADER;

    QByteArray tail = _rest;
    zstream::appendStored(tail, ending, true);
    const uLong sum = adler32_combine(_sum, zstream::sum(ending), ending.size());
    zstream::appendBigEndian(tail, quint32(sum));

    QByteArray frame = frameformat::lines(word, base64::encodedSize(head.size()) + _base64.size() +
                                                    base64::encodedSize(tail.size()));
    base64::append(frame, head);
    frame += _base64;
    base64::append(frame, tail);
    return frame;
}

} // namespace bus
