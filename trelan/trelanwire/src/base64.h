#pragma once

#include <QtCore/QByteArray>

/// What QByteArray has of base64, without its branches, which nobody can predict for bytes that are
/// new every time: a third of the time, or when reading a tenth. Internal to the libraries; pure.
namespace bus::base64
{

/// The size of QByteArray::toBase64() of that many bytes.
int encodedSize(int bytes);

/// What the processor offers, or what any has. The result is the same.
enum Way { Fastest, Portable };

/// Appends what \a bytes.toBase64() returns.
void append(QByteArray &out, const QByteArray &bytes, Way way = Fastest);

/// What QByteArray::fromBase64(\a text) returns, whatever the text.
QByteArray decode(const QByteArray &text, Way way = Fastest);

} // namespace bus::base64
