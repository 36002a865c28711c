#pragma once

#include "values/clientowner.h"
#include "values/connectionid.h"
#include "values/objectrecord.h"

#include <trelanerror.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>
#include <QtCore/QVector>

#include <functional>

namespace bus
{

/// \brief What the rules of the bus need of whoever owns the connections.
class BusOutput
{
public:
    virtual ~BusOutput() = default;

    /// The request of \a id that is being handled is answered later, and the next ones may be
    /// handled meanwhile. The answers are due in the order of the requests.
    virtual void takeNext(ConnectionId id) = 0;

    /// Answers the oldest request of \a id that has no answer. Ignored when the connection is gone.
    virtual void reply(ConnectionId id, const QString &word, const TrelanError &error) = 0;
    /// Answers with one object as the data.
    virtual void replyObject(ConnectionId id, const QString &word, const ObjectRecord &record) = 0;
    /// Answers with the objects by name.
    virtual void replyObjects(ConnectionId id, const QString &word,
                              const QVector<ObjectRecord> &records) = 0;

    /// Answers with \a data, which takes about \a cost bytes.
    virtual void replyData(ConnectionId id, const QString &word, const QVariantMap &data,
                           qint64 cost) = 0;

    /// Answers with data for each client under "clients", and adds which processes have \a sockets,
    /// one for each client. Reading all of it from the system takes a while.
    virtual void replyClients(ConnectionId id, const QString &word, const QVariantList &clients,
                              const QVector<quint64> &sockets) = 0;

    /// Whether everything that was sent has left, so that push() may be called.
    virtual bool canPush(ConnectionId id) const = 0;
    /// Sends a frame that answers nothing, in a block of its own.
    virtual void push(ConnectionId id, const QByteArray &frame) = 0;

    /// Has the replies of \a id wait in the system until readReplies() or the end of the
    /// connection, or has them read as they come, which is how a connection begins.
    virtual void setReadsLate(ConnectionId id, bool late) = 0;
    /// Hands over the replies of \a id that have arrived, before this returns.
    virtual void readReplies(ConnectionId id) = 0;

    /// Runs \a make on the codec thread, so that a large frame delays no other client; calls \a
    /// done later on the bus thread.
    virtual void encode(const std::function<QByteArray()> &make,
                        const std::function<void(const QByteArray &)> &done) = 0;

    /// Has BusCore::goOn() called when everybody else has had a turn.
    virtual void goOnLater() = 0;

    virtual void closeConnection(ConnectionId id) = 0;
    /// Whether the connection takes no more requests, even if nobody has noticed yet.
    virtual bool isAtEnd(ConnectionId id) const = 0;
    /// Address and port of the other side.
    virtual QString peer(ConnectionId id) const = 0;
    /// Who has made the connection, without names.
    virtual ClientOwner owner(ConnectionId id) const = 0;
    /// The client has named itself.
    virtual void setRegistered(ConnectionId id) = 0;
};

} // namespace bus
