#pragma once

#include <QtCore/QByteArray>

/// Base64 with the results of QByteArray. Encoding takes a third of QByteArray's time and decoding
/// a tenth, since no branch depends on the bytes. Internal to the libraries; pure.
namespace bus::base64
{

/// The size of the base64 text of so many bytes.
int encodedSize(int bytes);

/// With the widest instructions that the processor has, or with those that every processor has.
/// Both give the same result.
enum Way { Fastest, Portable };

/// Appends what \a bytes.toBase64() returns.
void append(QByteArray &out, const QByteArray &bytes, Way way = Fastest);

/// What QByteArray::fromBase64(\a text) returns, whatever the text.
QByteArray decode(const QByteArray &text, Way way = Fastest);

} // namespace bus::base64
