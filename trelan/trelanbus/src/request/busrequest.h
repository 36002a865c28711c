#pragma once

#include "values/objectrecord.h"

#include <trelanerror.h>
#include <trelanframe.h>
#include <trelanmessage.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <optional>

namespace bus
{

/// \brief One request off the query channel, decoded and checked as far as it can be without
/// knowing what the bus holds.
///
/// Only the fields of its operation are filled in. Making one is pure and takes the time that the
/// size of the payload takes, so that it can be done in any thread.
struct BusRequest
{
    enum Operation {
        Invalid, ///< see fault
        Handshake,
        Publish,
        Remove,
        LoadObject,
        LoadObjects,
        Subscribe,
        Unsubscribe,
        SendMessage,
        Clients
    };

    Operation operation = Invalid;
    QString word;      ///< the operation, cut when it is long; the reply repeats it
    TrelanError fault; ///< of an Invalid request
    TrelanFrame::Fault payloadFault = TrelanFrame::NoFault;

    QString name;           ///< client (Handshake), object (LoadObject), wildcard (LoadObjects),
                            ///< receiver (SendMessage)
    bool prompt = false;    ///< Handshake: how the client reads
    bool transient = false; ///< Handshake: nothing waits for the client once it has gone
    bool features = false;  ///< Handshake: asks what the bus can do
    bool now = false;       ///< Subscribe: with the values that are stored
    bool told = false;      ///< Subscribe: says which values those are, and which is the last
    bool removals = false;  ///< Subscribe: and is told what is removed
    QString wildcards;      ///< Subscribe: the text that came
    QStringList names;      ///< objects (Remove) or wildcards (Subscribe, Unsubscribe)
    std::optional<TrelanMessage> message; ///< SendMessage; with the time, without a sender
    qint64 limit = 0; ///< SendMessage: milliseconds until it is not to be sent any more; 0 is never
    ObjectRecord record; ///< Publish; without publisher, and without uid where none was sent

    /// Never fails: what is wrong with \a payload stands in the fault.
    static BusRequest parse(const QByteArray &payload, qint64 maxInflatedSize);
};

} // namespace bus
