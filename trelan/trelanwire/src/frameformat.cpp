#include "frameformat.h"

#include "base64.h"
#include "scratch.h"
#include "zstream.h"

namespace bus::frameformat
{

namespace
{

constexpr std::string_view LINE_BREAK = "\r\n";

QByteArray &append(QByteArray &out, std::string_view bytes)
{
    return out.append(bytes.data(), int(bytes.size()));
}

} // namespace

QByteArray lines(std::string_view word, int payloadSize)
{
    constexpr int MOST = 32;
    QByteArray bytes;
    bytes.reserve(MOST + payloadSize);
    append(append(bytes, word), LINE_BREAK) += QByteArray::number(payloadSize);
    return append(bytes, LINE_BREAK);
}

QByteArray light(std::string_view word, const QByteArray &json)
{
    static thread_local QByteArray _bytes;
    const Scratch scratch(_bytes);
    zstream::storeOrCompress(json, _bytes);
    QByteArray frame = lines(word, base64::encodedSize(_bytes.size()));
    base64::append(frame, _bytes);
    return frame;
}

} // namespace bus::frameformat
