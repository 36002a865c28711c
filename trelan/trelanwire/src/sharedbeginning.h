#pragma once

#include <QtCore/QByteArray>

#include <string_view>

namespace bus
{

/// \brief Makes frames of JSON texts that begin alike. The beginning is compressed and encoded
/// once, so that a frame costs little more than a copy. Internal to the libraries.
///
/// The beginning ends a block of the compressed stream; the ending is a block of its own, which is
/// not compressed. The frames are in the coding Light, and any reader of frames reads them. Making
/// frames is thread-safe.
class SharedBeginning
{
public:
    explicit SharedBeginning(const QByteArray &beginning);

    /// The frame of the text that consists of the beginning and \a ending, with one of the header
    /// words of frameformat.h.
    QByteArray frame(std::string_view word, const QByteArray &ending) const;

private:
    int _size;
    quint32 _sum;
    QByteArray _base64; // of the blocks, as far as whole groups of base64 go
    QByteArray _rest;   // of the blocks, not encoded yet
};

} // namespace bus
