#pragma once

#include <sharedbeginning.h>
#include <trelanmessage.h>
#include <trelantransport.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <atomic>
#include <memory>
#include <mutex>

namespace bus
{

/// \brief What a message says to each of its receivers: everything but the receiver and the uid.
///
/// It is made once for a publish and shared by the queues of all receivers, whose frames in the
/// coding Light share their beginning. Immutable and thread-safe.
class MessageBody
{
public:
    using Ref = std::shared_ptr<const MessageBody>;

    /// The body of a notification, with a \a text in UTF-8.
    MessageBody(const QByteArray &text, const QString &sender, qint64 time);
    explicit MessageBody(const TrelanMessage &message);
    Ref withoutText() const;

    int textSize() const; ///< in bytes or in characters
    const QString &sender() const;
    qint64 time() const;
    bool needsAnswer() const;
    /// A hash of the text.
    size_t digest() const;

    QByteArray frame(const QString &reciever, const QString &uid,
                     TrelanTransport::Coding coding) const;
    /// Whether the beginning of the frames in Light is made, so that one more frame takes no longer
    /// for a large text than for a small one.
    bool isEncoded() const;

private:
    QByteArray classicFrame(const QString &reciever, const QString &uid) const;
    QByteArray beginning() const;
    const SharedBeginning &shared() const;

    const QByteArray _utf8; // the text of a notification
    const QString _text;    // the text of a message
    const QString _sender;
    const qint64 _time;
    const TrelanMessage::Options _options;
    const size_t _digest;
    mutable std::mutex _mutex; // guards the making of _shared
    mutable std::unique_ptr<SharedBeginning> _shared;
    mutable std::atomic<bool> _isEncoded {false};
};

} // namespace bus
