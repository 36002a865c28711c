#pragma once

#include "delivery/sharedpayload.h"

#include <trelanmessage.h>
#include <trelantransport.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <atomic>
#include <memory>
#include <mutex>

namespace bus
{

/// \brief What a delivery says to each of its receivers: everything but the receiver and the uid.
///
/// Made once for a publish, and shared by the queues of all its receivers. The
/// frames of all of them share their beginning, too. Nothing of it changes; thread-safe.
class DeliveryBody
{
public:
    using Ref = std::shared_ptr<const DeliveryBody>;

    /// Of a notification, with a \a text in UTF-8.
    DeliveryBody(const QByteArray &text, const QString &sender, qint64 time, bool forMany = false);
    explicit DeliveryBody(const TrelanMessage &message);
    Ref withoutText() const;

    int textSize() const; ///< in bytes or in characters
    const QString &sender() const;
    bool needsAnswer() const;
    /// One number for each text, or nearly so.
    size_t digest() const;

    QByteArray frame(const QString &reciever, const QString &uid,
                     TrelanTransport::Coding coding) const;
    /// Whether, in the Light coding, making a frame takes no longer for a large text than for a
    /// small one.
    bool isEncoded() const;

private:
    QByteArray classicFrame(const QString &reciever, const QString &uid) const;
    QByteArray classicBeginning() const;
    QByteArray beginning() const;
    void appendText(QByteArray &out) const;
    const TrelanSharedPayload &shared() const;

    const QByteArray _text; // or
    const QString _message;
    const QString _sender;
    const qint64 _time;
    const TrelanMessage::Options _options;
    const size_t _digest;
    const TrelanClassicPayload _classic;
    mutable std::mutex _mutex; // of the making of:
    mutable std::unique_ptr<TrelanSharedPayload> _shared;
    mutable std::atomic<bool> _isEncoded {false};
};

} // namespace bus
