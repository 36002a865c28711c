#pragma once

#include "trelanframe.h"

#include <memory>

namespace bus
{

/// \brief Cuts a stream of bytes, arriving in pieces of any size, into frames.
///
/// Bytes go in with feed(), frames come out of next(); there is no socket here and no log. It is
/// strict where a stream cannot be trusted any more: once a line is not what it has to be, the end
/// of the frame is unknown, and the reader stays faulty.
///
/// Memory is bounded by the limit, one line and the last piece fed: a longer payload is reported
/// as soon as its size line has been read.
///
/// \code
/// reader.feed(socket->readAll());
/// while (reader.next() == TrelanFrameReader::FrameReady)
///     handle(reader.kind(), reader.payload());
/// \endcode
class TRELAN_EXPORT TrelanFrameReader
{
public:
    enum Status {
        NeedMoreData, ///< nothing is complete; feed more
        FrameReady,   ///< kind() and payload() hold the next frame
        Malformed,    ///< a header or size line is none; see faultText()
        TooLarge      ///< the announced payload is above the limit; see faultText()
    };

    /// \a maxPayload is the largest payload, in bytes of its base64 text, that is taken.
    explicit TrelanFrameReader(qint64 maxPayload);
    ~TrelanFrameReader();
    Q_DISABLE_COPY(TrelanFrameReader)

    /// Appends \a bytes to the stream. A faulty reader ignores them.
    void feed(const QByteArray &bytes);

    /// Goes on to the next frame. Malformed and TooLarge are final.
    Status next();

    /// Whether next() would be ready, or faulty, without more data.
    bool hasNext();

    /// The kind of the last frame that was ready.
    TrelanFrame::Kind kind() const;
    /// The payload of the last frame that was ready; empty after any other status of next().
    QByteArray payload() const;

    /// Whether bytes are there, or were taken, of a frame that next() has yet to return.
    bool isInsideFrame() const;

    /// What is wrong, for people; empty unless the status is Malformed or TooLarge.
    QString faultText() const;

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace bus
