#pragma once

#include "trelancommand.h"
#include "trelanmessage.h"
#include "trelanobject.h"

#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <cstddef>

namespace bus
{

/// \brief What the text of a message that the bus has delivered says. Internal to the library;
/// pure.
struct Incoming
{
    enum Kind {
        Message, ///< anything but the below
        Object,  ///< a notification
        Command, ///< a call, a command to everybody, or an answer
        Removal, ///< the object \c name is removed
        Told     ///< the values that answer the request for \c name have been told
    };
    enum Stored {
        Unknown, ///< the bus does not say, or the object is an event
        Changed, ///< the object was published, and is stored
        Now      ///< the object is stored, and nothing has changed
    };

    Kind kind = Message;
    TrelanObject object;
    TrelanCommand command;
    QString name;
    Stored stored = Unknown;
    bool hasParams = true; ///< of a command: false if they are no map
    size_t digest = 0;     ///< of an object that is stored: differs where two values do

    /// Whether the bus tells of an object, in contrast to what another client has sent.
    bool isNotification() const
    {
        return kind != Message && (kind != Command || !object.name().isEmpty());
    }

    /// Takes \a message apart. Whether the two last kinds are looked for is for the caller to say:
    /// for a client that has not asked for them such a text is a message like any other.
    static Incoming of(const TrelanMessage &message, bool hasAsked);
};

/// \name The values in the texts of messages
/// @{
TrelanObject objectOf(const TrelanMessage &message, const QVariantMap &notification);
TrelanCommand commandOf(const TrelanMessage &message, const QVariantMap &call);
/// Whether \a object is a command to everybody, as which it is read by commandToEverybody().
bool isCommandToEverybody(const TrelanObject &object);
TrelanCommand commandToEverybody(const TrelanObject &object);
/// Whether \a body says that an object is removed.
bool isRemoval(const QVariantMap &body);
/// @}

} // namespace bus
