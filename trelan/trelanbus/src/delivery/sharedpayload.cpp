#include "delivery/sharedpayload.h"

#include <base64.h>
#include <zstream.h>

#include <atomic>
#include <utility>

namespace bus
{

namespace
{

constexpr int GROUP = 3;       // bytes that base64 makes characters of together
constexpr int HEADER_SIZE = 6; // declared length, and header of the zlib stream
constexpr int LEVEL = Z_BEST_SPEED;
// Copying the state of a compressor takes as long as compressing about so much.
constexpr int SMALLEST_SHARED = 2 * 1024;

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

TrelanSharedPayload::TrelanSharedPayload(const QByteArray &beginning)
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

QByteArray TrelanSharedPayload::frame(TrelanFrame::Kind kind, const QByteArray &ending) const
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

struct TrelanClassicPayload::Common
{
    QByteArray header; // of the zlib stream
    QByteArray base64; // of what follows the header, as far as whole groups go
    QByteArray rest;   // of it
    QByteArray last;   // of the beginning, what is compressed with each ending
    int size = 0;      // of the whole beginning
};

namespace
{

std::atomic<quint64> _lastNumber {0};

/// What a thread has compressed last.
struct Branch
{
    zstream::BranchingDeflater deflater;
    quint64 number = 0; // whose beginning it is
};

Branch &branch()
{
    static thread_local Branch _branch;
    return _branch;
}

} // namespace

TrelanClassicPayload::TrelanClassicPayload(bool forMany)
    : _number(++_lastNumber)
    , _isForMany(forMany)
{}

TrelanClassicPayload::~TrelanClassicPayload() = default;

QByteArray TrelanClassicPayload::frame(TrelanFrame::Kind kind,
                                       const std::function<QByteArray()> &beginning,
                                       const QByteArray &ending) const
{
    const CommonRef common = isAlone() ? CommonRef() : commonOf(beginning);
    if (!common)
        return whole(kind, beginning() + ending);
    QByteArray tail = common->rest;
    if (!branch().deflater.finish(common->last + ending, tail))
        return whole(kind, beginning() + ending);
    QByteArray head;
    zstream::appendBigEndian(head, quint32(common->size + ending.size()));
    head += common->header;
    QByteArray payload;
    payload.reserve(base64::encodedSize(head.size()) + common->base64.size() +
                    base64::encodedSize(tail.size()));
    base64::append(payload, head);
    payload += common->base64;
    base64::append(payload, tail);
    return TrelanFrame::frame(kind, payload);
}

/// Most messages have one receiver, for whom a state would be made for nothing.
bool TrelanClassicPayload::isAlone() const
{
    const std::lock_guard lock(_mutex);
    return !std::exchange(_isForMany, true) || _isSmall;
}

/// With the state of this thread's compressor behind it; null where that does not pay.
TrelanClassicPayload::CommonRef
TrelanClassicPayload::commonOf(const std::function<QByteArray()> &beginning) const
{
    constexpr int STREAM_HEADER_SIZE = 2;
    {
        const std::lock_guard lock(_mutex);
        if (_common && branch().number == _number)
            return _common;
    }
    const QByteArray text = beginning();
    if (text.size() < SMALLEST_SHARED) {
        const std::lock_guard lock(_mutex);
        _isSmall = true;
        return {};
    }
    branch().number = 0;
    const int safe = zstream::BranchingDeflater::safePart(text.size());
    QByteArray bytes;
    if (!branch().deflater.begin(text.left(safe), bytes) || bytes.size() < STREAM_HEADER_SIZE)
        return {};
    branch().number = _number;
    const int whole = (bytes.size() - STREAM_HEADER_SIZE) / GROUP * GROUP;
    auto common = std::make_shared<Common>();
    common->header = bytes.left(STREAM_HEADER_SIZE);
    base64::append(common->base64, bytes.mid(STREAM_HEADER_SIZE, whole));
    common->rest = bytes.mid(STREAM_HEADER_SIZE + whole);
    common->last = text.mid(safe);
    common->size = text.size();
    const std::lock_guard lock(_mutex);
    _common = common; // another thread makes the same of it
    return common;
}

QByteArray TrelanClassicPayload::whole(TrelanFrame::Kind kind, const QByteArray &text)
{
    QByteArray payload;
    base64::append(payload, TrelanFrame::compress(text));
    return TrelanFrame::frame(kind, payload);
}

} // namespace bus
