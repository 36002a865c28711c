#pragma once

#include "delivery/queuedmessage.h"
#include "values/objectrecord.h"

#include <trelantransport.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <array>

namespace bus
{

/// \brief Makes the messages that tell subscribers of a value.
///
/// One value usually goes to many subscribers in turn: what all of them are told is made once, and
/// kept until the next value or the next removal is asked for. One thread.
class Notification
{
public:
    explicit Notification(TrelanTransport::Coding coding);

    /// What a notification says of an object that is stored.
    enum Stored {
        Unsaid,  ///< nothing, to a client that has not asked
        Changed, ///< that it was published
        Now      ///< that it is stored, as the client wanted to know
    };

    /// The message that tells \a receiver of \a record. Of an object that is not stored it says
    /// nothing but its value.
    QueuedMessage message(const ObjectRecord &record, const QString &receiver, Stored stored);

    /// The message that tells \a receiver that \a remover has removed an object.
    QueuedMessage removal(const QString &object, const QString &remover, qint64 time,
                          const QString &receiver);

    /// The message that tells \a client that all values of a subscription have been told. \a
    /// wildcards is its text.
    QueuedMessage marker(const QString &client, const QString &wildcards) const;

    /// Whether the storage keeps the value, so that it can be read there when it is sent.
    static bool isKept(const ObjectRecord &record);
    static constexpr qint64 REMOVAL_COST = 512; ///< bytes that a waiting removal takes, roughly
    /// How many bytes the waiting message takes, roughly.
    static qint64 cost(const ObjectRecord &record);

private:
    MessageBody::Ref ofWords(const QVariantMap &words, const QString &sender, qint64 time) const;
    MessageBody::Ref body(const ObjectRecord &record, Stored stored) const;

    TrelanTransport::Coding _coding;
    QByteArray _content;                           // of the last value; shared with its record
    std::array<MessageBody::Ref, Now + 1> _bodies; // by Stored, each made when it is needed
    QString _removed;                              // the object of the last removal
    MessageBody::Ref _removal;
};

} // namespace bus
