#pragma once

#include "trelanframe.h"

#include <QtCore/QByteArray>

#include <functional>
#include <memory>
#include <mutex>

namespace bus
{

/// \brief Frames of JSON texts that begin alike: what they have in common is compressed and encoded
/// once, and each of them costs little more than a copy of it. Internal to the libraries.
///
/// The beginning ends a block of the compressed stream, and what follows it is one more block, not
/// compressed. Any reader of frames reads them; they are as TrelanFrame::compressLightly() makes
/// them, but for that. Making frames is thread-safe.
class TrelanSharedPayload
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

/// \brief The same in the Classic coding, whose bytes are not for us to choose: each frame is the
/// one that TrelanFrame::encode() makes of the whole text.
///
/// The state of the compressor behind a large beginning is kept, in each thread for the last
/// beginning only; others are compressed anew. Making frames is thread-safe.
class TrelanClassicPayload
{
public:
    /// The state is kept from the first frame on if there are to be many, or else from the second.
    explicit TrelanClassicPayload(bool forMany = false);
    ~TrelanClassicPayload();
    Q_DISABLE_COPY(TrelanClassicPayload)

    /// The frame of the text that consists of \a beginning, which is always the same, and
    /// \a ending.
    QByteArray frame(TrelanFrame::Kind kind, const std::function<QByteArray()> &beginning,
                     const QByteArray &ending) const;

private:
    struct Common;
    using CommonRef = std::shared_ptr<const Common>;

    CommonRef commonOf(const std::function<QByteArray()> &beginning) const;
    static QByteArray whole(TrelanFrame::Kind kind, const QByteArray &text);
    bool isAlone() const;

    const quint64 _number;
    mutable std::mutex _mutex; // of:
    mutable bool _isForMany;
    mutable bool _isSmall = false; // as far as is known
    mutable CommonRef _common;
};

} // namespace bus
