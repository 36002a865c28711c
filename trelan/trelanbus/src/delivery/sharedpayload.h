#pragma once

#include <trelanframe.h>

#include <QtCore/QByteArray>

namespace bus
{

/// \brief Frames of JSON texts that begin alike: the beginning is compressed and encoded once, so
/// that each frame costs little more than a copy of it.
///
/// The frames are in the coding Light, and any reader of frames reads them. The beginning ends a
/// block of the compressed stream; the ending follows in one more block, which is not compressed.
/// Making frames is thread-safe.
class SharedPayload
{
public:
    explicit SharedPayload(const QByteArray &beginning);

    /// The frame of the text that consists of the beginning and \a ending.
    QByteArray frame(TrelanFrame::Kind kind, const QByteArray &ending) const;

private:
    int _size; // of the beginning
    quint32 _sum;
    QByteArray _base64; // the blocks of the beginning, as far as whole groups go
    QByteArray _rest;   // the bytes of the blocks behind the last whole group
};

} // namespace bus
