#pragma once

#include "trelanframe.h"

#include <QtCore/QByteArray>

namespace bus
{

/// \brief Frames of JSON texts that begin alike: what they have in common is compressed and encoded
/// once, and each of them costs little more than a copy of it. Internal to the libraries.
///
/// The beginning ends a block of the compressed stream, and what follows it is one more block, not
/// compressed. Any reader of frames reads them; they are as TrelanFrame::compressLightly() makes
/// them, but for that. Making frames is thread-safe.
class TRELAN_EXPORT TrelanSharedPayload
{
public:
    explicit TrelanSharedPayload(const QByteArray &beginning);

    /// The frame of the text that consists of the beginning and \a ending.
    QByteArray frame(TrelanFrame::Kind kind, const QByteArray &ending) const;

private:
    int _size; // of the beginning
    quint32 _sum;
    QByteArray _base64; // of its blocks, as far as whole groups go
    QByteArray _rest;   // of them
};

} // namespace bus
