#include "trelanframereader.h"

#include <cstring>
#include <limits>

namespace bus
{

class TrelanFrameReader::Private
{
public:
    enum State { InHeader, InSize, InPayload, Faulty };

    qint64 _maxPayload = 0;
    QByteArray _buffer;
    int _position = 0; // of what has not been read, in the buffer
    State _state = InHeader;
    Status _fault = NeedMoreData;
    QString _faultText;
    TrelanFrame::Kind _kind = TrelanFrame::Request;
    TrelanFrame::Kind _nextKind = TrelanFrame::Request;
    int _payloadSize = 0; // of the next payload
    QByteArray _payload;

    void readLines();
    bool takeLine(QString &text);
    bool takeUsualHeader();
    bool takeUsualSize(qint64 &size);
    void readHeader();
    void readSize();
    Status readPayload();
    void fail(Status status, const QString &text);
};

TrelanFrameReader::TrelanFrameReader(qint64 maxPayload)
    : d(std::make_unique<Private>())
{
    d->_maxPayload = qMin<qint64>(maxPayload, std::numeric_limits<int>::max() / 2);
}

TrelanFrameReader::~TrelanFrameReader() = default;

void TrelanFrameReader::feed(const QByteArray &bytes)
{
    if (d->_state == Private::Faulty)
        return;
    if (d->_position > 0) {
        d->_buffer.remove(0, d->_position);
        d->_position = 0;
    }
    d->_buffer.append(bytes);
}

TrelanFrameReader::Status TrelanFrameReader::next()
{
    d->_payload.clear();
    d->readLines();
    return d->_state == Private::InPayload ? d->readPayload() : d->_fault;
}

bool TrelanFrameReader::hasNext()
{
    d->readLines();
    return d->_state == Private::Faulty ||
           (d->_state == Private::InPayload && d->_buffer.size() - d->_position >= d->_payloadSize);
}

TrelanFrame::Kind TrelanFrameReader::kind() const
{
    return d->_kind;
}

QByteArray TrelanFrameReader::payload() const
{
    return d->_payload;
}

bool TrelanFrameReader::isInsideFrame() const
{
    return d->_state != Private::InHeader || d->_position < d->_buffer.size();
}

QString TrelanFrameReader::faultText() const
{
    return d->_faultText;
}

/// Reads both lines of the next frame, as far as they have come.
void TrelanFrameReader::Private::readLines()
{
    if (_position == _buffer.size())
        return;
    if (_state == InHeader)
        readHeader();
    if (_state == InSize)
        readSize();
}

bool TrelanFrameReader::Private::takeLine(QString &text)
{
    const QByteArray piece = _buffer.mid(_position, TrelanFrame::MAX_LINE_LENGTH);
    const int end = piece.indexOf('\n');
    if (end < 0 && piece.size() < TrelanFrame::MAX_LINE_LENGTH)
        return false;
    const int length = end < 0 ? piece.size() : end + 1;
    _position += length;
    text = TrelanFrame::lineText(piece.left(length));
    return true;
}

/// Takes a header line in the spelling that all clients use, without making a QString of it.
bool TrelanFrameReader::Private::takeUsualHeader()
{
    static const QByteArray REQUEST("[-REQUEST-]\r\n");
    static const QByteArray REPLY("[-REPLY-]\r\n");
    const auto begins = [this](const QByteArray &line) {
        return _buffer.size() - _position >= line.size() &&
               std::memcmp(_buffer.constData() + _position, line.constData(),
                           size_t(line.size())) == 0;
    };
    const bool isRequest = begins(REQUEST);
    if (!isRequest && !begins(REPLY))
        return false;
    _nextKind = isRequest ? TrelanFrame::Request : TrelanFrame::Reply;
    _position += isRequest ? REQUEST.size() : REPLY.size();
    return true;
}

/// Takes a size line of digits alone, as all clients write it, without making a QString of it.
bool TrelanFrameReader::Private::takeUsualSize(qint64 &size)
{
    constexpr int MAX_DIGITS = TrelanFrame::MAX_LINE_LENGTH - 2;
    const char *const text = _buffer.constData() + _position;
    const int length = _buffer.size() - _position;
    int digits = 0;
    size = 0;
    for (; digits < qMin(length, MAX_DIGITS) && text[digits] >= '0' && text[digits] <= '9';
         ++digits)
        size = size * 10 + (text[digits] - '0');
    const bool isLine =
        digits > 0 && length - digits >= 2 && text[digits] == '\r' && text[digits + 1] == '\n';
    if (isLine)
        _position += digits + 2;
    return isLine;
}

void TrelanFrameReader::Private::readHeader()
{
    if (takeUsualHeader()) {
        _state = InSize;
        return;
    }
    QString text;
    if (!takeLine(text))
        return;
    if (text == TrelanFrame::headerWord(TrelanFrame::Request))
        _nextKind = TrelanFrame::Request;
    else if (text == TrelanFrame::headerWord(TrelanFrame::Reply))
        _nextKind = TrelanFrame::Reply;
    else
        return fail(Malformed, QStringLiteral("\"%1\" is no header line").arg(text));
    _state = InSize;
}

void TrelanFrameReader::Private::readSize()
{
    qint64 size = 0;
    if (!takeUsualSize(size)) {
        QString text;
        if (!takeLine(text))
            return;
        bool ok = false;
        size = text.toLongLong(&ok, 10);
        if (!ok || size < 0)
            return fail(Malformed, QStringLiteral("\"%1\" is no size line").arg(text));
    }
    // A longer frame is not a large message but a stream out of step; buffering it would hide that
    // until memory ran out.
    if (size > _maxPayload) {
        return fail(TooLarge, QStringLiteral("a payload of %1 bytes is above the limit of %2")
                                  .arg(size)
                                  .arg(_maxPayload));
    }
    _payloadSize = int(size);
    _state = InPayload;
}

TrelanFrameReader::Status TrelanFrameReader::Private::readPayload()
{
    if (_buffer.size() - _position < _payloadSize)
        return NeedMoreData;
    _kind = _nextKind;
    _payload = _buffer.mid(_position, _payloadSize);
    _position += _payloadSize;
    _state = InHeader;
    // A connection that is idle after a large frame must not hold on to the memory it took.
    if (_position == _buffer.size()) {
        _buffer.clear();
        _position = 0;
    }
    return FrameReady;
}

void TrelanFrameReader::Private::fail(Status status, const QString &text)
{
    _state = Faulty;
    _fault = status;
    _faultText = text;
    _buffer.clear();
    _position = 0;
}

} // namespace bus
