#include "trelanframereader.h"

#include <cstring>
#include <limits>

namespace bus
{

TrelanFrameReader::TrelanFrameReader(qint64 maxPayload)
    : _maxPayload(qMin<qint64>(maxPayload, std::numeric_limits<int>::max() / 2))
{}

void TrelanFrameReader::feed(const QByteArray &bytes)
{
    if (_state == Faulty)
        return;
    if (_position > 0) {
        _buffer.remove(0, _position);
        _position = 0;
    }
    _buffer.append(bytes);
}

TrelanFrameReader::Status TrelanFrameReader::next()
{
    _payload.clear();
    readLines();
    return _state == InPayload ? readPayload() : _fault;
}

bool TrelanFrameReader::hasNext()
{
    readLines();
    return _state == Faulty || (_state == InPayload && _buffer.size() - _position >= _size);
}

TrelanFrame::Kind TrelanFrameReader::kind() const
{
    return _kind;
}

QByteArray TrelanFrameReader::payload() const
{
    return _payload;
}

bool TrelanFrameReader::isInsideFrame() const
{
    return _state != InHeader || _position < _buffer.size();
}

QString TrelanFrameReader::faultText() const
{
    return _faultText;
}

/// Both lines of the next frame, as far as they are there.
void TrelanFrameReader::readLines()
{
    if (_position == _buffer.size())
        return;
    if (_state == InHeader)
        readHeader();
    if (_state == InSize)
        readSize();
}

bool TrelanFrameReader::takeLine(QString &text)
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

/// The line as everybody writes it, for which there is no need to make a text of it.
bool TrelanFrameReader::takeUsualHeader()
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

/// Likewise, of a size that is no longer than a line may be.
bool TrelanFrameReader::takeUsualSize(qint64 &size)
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

void TrelanFrameReader::readHeader()
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

void TrelanFrameReader::readSize()
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
    _size = int(size);
    _state = InPayload;
}

TrelanFrameReader::Status TrelanFrameReader::readPayload()
{
    if (_buffer.size() - _position < _size)
        return NeedMoreData;
    _kind = _nextKind;
    _payload = _buffer.mid(_position, _size);
    _position += _size;
    _state = InHeader;
    // A connection that is idle after a large frame must not hold on to the memory it took.
    if (_position == _buffer.size()) {
        _buffer.clear();
        _position = 0;
    }
    return FrameReady;
}

void TrelanFrameReader::fail(Status status, const QString &text)
{
    _state = Faulty;
    _fault = status;
    _faultText = text;
    _buffer.clear();
    _position = 0;
}

} // namespace bus
