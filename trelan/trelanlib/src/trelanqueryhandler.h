#pragma once

#include "trelanglobal.h"

#include "trelanchannelsettings.h"
#include "trelancommand.h"
#include "trelanerror.h"
#include "trelanmessage.h"
#include "trelanobject.h"
#include "trelantransport.h"

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>
#include <QtNetwork/QAbstractSocket>

#include <atomic>
#include <memory>

namespace bus
{

/// \brief The client end of the query channel: one connection on which a client sends a request
/// and blocks until the reply is there.
///
/// Threads: a handler is used from the thread it lives in and from no other. It has no lock. It
/// needs no running event loop, except to notice a connection that drops while nothing is asked.
///
/// Waiting: a request blocks for up to 30 s until it has left, up to 30 s for the first byte of its
/// reply, and then, for a reply of N bytes, for up to max(100, N / 100 + 1) attempts of at most
/// 110 ms each. It takes at least the 10 ms that follow each read attempt. open() waits up to 30 s
/// for the connection, and then for the handshake, which is a request. close(), and so the
/// destructor, takes 100 ms.
/// In Prompt mode (see TrelanTransport) there are no pauses: a request returns as soon as its reply
/// is complete, or after TrelanTransport::patience(). A handler may have settings of its own, see
/// setChannelSettings().
///
/// Failure: an operation that fails returns false and leaves its arguments untouched. The reason
/// goes to the Qt log (category "default") and to lastFailure() and lastError(). A request that
/// fails leaves the connection open, except a refused handshake, which closes it. In Prompt mode a
/// request that ends in Timeout or Framing closes the connection too, with busDisconnected(): a
/// late reply would be taken for the next one.
///
/// \code
/// bus::TrelanQueryHandler handler("thermometer");
/// if (!handler.open())
///     return 1; // no bus at queryHost():queryPort()
/// bus::TrelanObject room;
/// room.setName("room.kitchen");
/// room.setContent({ { "celsius", 21.5 } });
/// handler.publish(room);
/// QMap<QString, bus::TrelanObject> rooms;
/// handler.loadObjects("room.*", rooms);
/// \endcode
class TRELAN_EXPORT TrelanQueryHandler : public QObject
{
    Q_OBJECT

public:
    /// Default TCP port of the query channel.
    static constexpr quint16 DEFAULT_PORT = 43535;

    /// What the last operation of a handler ended in.
    enum Failure {
        None,    ///< it succeeded, or there was none yet
        NotOpen, ///< no connection, or it was lost before the reply was there
        Timeout, ///< connected, but no reply in time
        Framing, ///< a reply came that is no well-formed frame
        Refused  ///< the bus answered with an error code: see lastError()
    };
    Q_ENUM(Failure)

    /// A closed handler that will register with the bus as \a clientName.
    explicit TrelanQueryHandler(const QString &clientName, QObject *parent = nullptr);
    /// Closes; takes 100 ms, or none in Prompt mode.
    ~TrelanQueryHandler() override;

    /// IPv4 address used by the next open() of any handler of the process that has no settings of
    /// its own; 127.0.0.1 unless set.
    /// Not thread-safe: set host and port before the first handler opens.
    static quint32 queryHost();
    static void setQueryHost(quint32 host);

    /// TCP port used by the next open() of any handler; DEFAULT_PORT unless set, 0 never opens.
    static quint16 queryPort();
    static void setQueryPort(const quint16 &port);

    QString clientName() const;

    /// Whether the bus has accepted the handshake since the last open(). Stays true when the bus
    /// goes away, until close(); isOpen() is what tells whether requests can be sent.
    bool handshaked() const;

    /// Connected and handshaked.
    bool isOpen() const;

    /// Loads the object called \a name. On failure \a object stays as it was.
    bool loadObject(const QString &name, TrelanObject &object);

    /// Loads every stored object whose name \a wildCard takes in, and adds them to \a objects by
    /// name. What the map held before and the bus does not name stays there.
    bool loadObjects(const QString &wildCard, QMap<QString, TrelanObject> &objects);

    /// How the last operation ended; of a list, its last failing request.
    Failure lastFailure() const;

    /// Code and description as the bus sent them if the last failure was Refused, else no error.
    TrelanError lastError() const;

    /// From the next open() on the handler goes by \a settings instead of those of the process.
    void setChannelSettings(const TrelanChannelSettings &settings);
    /// What the next open() goes by: its own settings, or else those of the process as they are
    /// now.
    TrelanChannelSettings channelSettings() const;

    /// Asks the bus at the next open() what it can do beyond what every bus can; see the table of
    /// features in docs/protocol.md. False unless set. A bus that refuses to be asked is connected
    /// once more, and not asked. A port of the other channel is noticed then: open() fails, as if
    /// the bus had refused it as an unsupported request.
    void setAsksFeatures(bool asks);
    /// What the bus has answered since the last open(); empty if it was not asked, or has nothing
    /// to say.
    QStringList features() const;

    /// What a subscription brings beside later changes.
    enum SubscribeOption {
        WithNow = 1, ///< the stored values, as subscribeNow() does
        /// Every removal of an object that is taken in. The receiving side has to ask for it as
        /// well, see TrelanMessageReciever::setTakesRemovals().
        WithRemovals = 2
    };
    Q_DECLARE_FLAGS(SubscribeOptions, SubscribeOption)

    /// Subscribes as subscribe() does, with more. A bus that does not know of an option only
    /// subscribes: features() tells.
    bool subscribeWith(const QString &wildCard, SubscribeOptions options);
    bool subscribeWith(const QStringList &wildCards, SubscribeOptions options);

Q_SIGNALS:
    /// The connection dropped by itself; never emitted by close(). It may come out of a request
    /// that is waiting, so reopen from a queued connection, not from a direct one.
    void busDisconnected();
    /// open() has succeeded.
    void kelbusConnected();

public Q_SLOTS:
    /// Connects and names the client to the bus. True at once on an open handler; false at once,
    /// without touching the socket, when the port is 0.
    bool open();

    /// Ends the connection without any signal, after a pause of 100 ms (none in Prompt mode).
    void close();

    /// Removes the objects of these names, trimmed, from the memory and the disk of the bus. Names
    /// that the bus does not know are no failure.
    bool rmPersistent(const QStringList &names);

    /// Publishes a copy of \a object under this client's name as publisher, with a fresh uid and
    /// the current time where it has none.
    bool publish(TrelanObject object);

    /// Publishes one after the other and goes on after a failure; true if none failed. In Prompt
    /// mode the next ones are sent while replies are on their way.
    bool publish(QList<TrelanObject> objects);

    bool subscribe(const QString &wildCard);
    /// All or nothing. An entry must not contain "::", which separates them on the wire.
    bool subscribe(const QStringList &wildCards);

    /// A wildcard that is not subscribed is no failure.
    bool unsubscribe(const QString &wildCard);
    bool unsubscribe(const QStringList &wildCards);

    /// Sends a copy of \a msg with this client's name as sender and a fresh uid if it has none.
    bool sendMessage(TrelanMessage msg);

    /// Sends a command as a message to its receiver or, without one, publishes it to everybody.
    bool sendCommand(TrelanCommand cmd);

private Q_SLOTS:
    void socketConnected();
    void socketDisconnected();
    void socketError(QAbstractSocket::SocketError error);

public Q_SLOTS:
    /// Sends the handshake and returns what the bus thinks of it; open() does it by itself.
    bool handshake();

    /// Sends any operation and waits for the reply. On success \a answer is the reply's "data".
    bool request(QVariantMap &answer, QString operation, QVariantMap data);
    bool request(QString operation, QVariantMap data);

    /// Judges the status of a reply: true if its code, cut to 16 bits, is 0.
    bool processReply(QString operation, QVariantMap data, QVariantMap result);

    /// Subscribes as subscribe() does, and the bus also notifies of every stored object that is
    /// taken in, as of a change: its value now, before any later one, and none in between is
    /// missed. So what is built out of notifications is whole, also for a wildcard that was
    /// subscribed before. A bus that does not know of this only subscribes.
    bool subscribeNow(const QString &wildCard);
    bool subscribeNow(const QStringList &wildCards);

protected:
    class Private;
    const std::unique_ptr<Private> d; // internal to the library

private:
    static std::atomic<quint16> _queryPort;
    static std::atomic<quint32> _queryHost;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(TrelanQueryHandler::SubscribeOptions)

} // namespace bus
