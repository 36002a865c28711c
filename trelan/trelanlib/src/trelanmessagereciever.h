#pragma once

#include "trelanglobal.h"

#include "trelanchannelsettings.h"
#include "trelancommand.h"
#include "trelanerror.h"
#include "trelanmessage.h"
#include "trelanobject.h"
#include "trelantransport.h"

#include <QtCore/QCache>
#include <QtCore/QObject>
#include <QtCore/QSharedPointer>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>
#include <QtNetwork/QAbstractSocket>

#include <atomic>
#include <memory>

namespace bus
{

/// \brief The client end of the message channel: the connection on which the bus pushes messages,
/// objects and commands to this client, each of which is acknowledged.
///
/// Threads: used from the thread it lives in, whose event loop has to run: what arrives is read
/// when that loop says so, and comes out as a signal.
///
/// Waiting: open() blocks for up to 30 s for the connection, and like every frame it writes up to
/// 30 s until the frame has left. Reading blocks too: a frame is read to its end in place, for at
/// most size / 100 + 1 attempts of up to 110 ms each. close(), and so the destructor, takes 100 ms.
/// All of it is left early when the thread is asked to end.
///
/// Failure: a frame that cannot be read is logged (category "default") and dropped, unanswered; the
/// reader does not look for the next one, so that what follows may be logged piece by piece.
///
/// In Prompt mode (see TrelanTransport) nothing but open() blocks: the receiver takes what has
/// arrived, keeps a part of a frame until the rest is there, and sends acknowledgements by itself.
/// An acknowledgement leaves before its message is handed on, unless the next message is there
/// already: messages that have arrived together are acknowledged together, at once or as soon as a
/// millisecond has passed between two of them. While a slot has an event loop of its own, the
/// receiver reads 64 KiB at most. A stream that is out of step, a frame that takes too long, a bus
/// that does not read and a handshake without an answer close the connection, with one warning and
/// busDisconnected(). A whole frame that cannot be understood is dropped, and the next one is read.
///
/// A message that was delivered before is acknowledged and dropped: the last 100 keys (see
/// TrelanMessage::msgKey()) are remembered, for as long as this object lives.
///
/// A slot on one of its signals may delete it.
class TRELAN_EXPORT TrelanMessageReciever : public QObject
{
    Q_OBJECT

public:
    /// Default TCP port of the message channel.
    static constexpr quint16 DEFAULT_PORT = 43537;

    /// A closed receiver that will register with the bus as \a clientName.
    explicit TrelanMessageReciever(const QString &clientName, QObject *parent = nullptr);
    /// Closes; takes 100 ms, or none in Prompt mode.
    ~TrelanMessageReciever() override;

    /// Connected, and the bus has accepted the handshake. False right after open(): the answer to
    /// the handshake is not waited for.
    bool isOpen() const;
    QString clientName() const;

    /// What is remembered of past messages. Another receiver may go on with it, in the same thread.
    using Filter = QSharedPointer<QCache<QString, TrelanMessage>>;
    Filter filter() const;
    void setFilter(const Filter &filter);

    /// Asks the bus to keep nothing for this client once its message connection has ended: what is
    /// still on its way then is dropped, and what comes later is refused. False unless set; takes
    /// effect with the next open(). For a program that is called once and ends, such as a tool.
    void setTransient(bool transient);

    /// From the next open() on the receiver goes by \a settings instead of those of the process.
    void setChannelSettings(const TrelanChannelSettings &settings);
    /// What the next open() goes by: its own settings, or else those of the process as they are
    /// now.
    TrelanChannelSettings channelSettings() const;

    /// Asks the bus at the next open() what it can do beyond what every bus can; see the table of
    /// features in docs/protocol.md. False unless set. A bus that refuses to be asked is connected
    /// once more, and not asked. A port of the other channel is noticed then, and taken for a
    /// refused handshake.
    void setAsksFeatures(bool asks);
    /// What the bus has answered with its acceptance of the handshake; empty if it was not asked,
    /// or has nothing to say.
    QStringList features() const;

    /// Takes a text by which the bus tells that an object is removed for that, see objectRemoved().
    /// False unless set: such a text is a message like any other then. The bus tells whoever has
    /// subscribed with TrelanQueryHandler::WithRemovals.
    void setTakesRemovals(bool takes);

    /// Why the last handshake was refused; no error if it was not.
    TrelanError refusal() const;

    /// IPv4 address used by the next open() of any receiver of the process that has no settings of
    /// its own; 127.0.0.1 unless set.
    /// Not thread-safe: set host and port before the first receiver opens.
    static quint32 msgHost();
    static void setMsgHost(quint32 host);

    /// TCP port used by the next open() of any receiver; DEFAULT_PORT unless set, 0 never opens.
    static quint16 msgPort();
    static void setMsgPort(const quint16 &port);

    /// Says what an accepted message is and hands it on: a notification to processObject(), a
    /// command and anything else by its signal.
    virtual void processMessage(const TrelanMessage &msg);
    /// Hands an object on by its signal; one under the reserved prefix is a command.
    virtual void processObject(const TrelanObject &obj);

Q_SIGNALS:
    /// A message that is neither a notification nor a command.
    void incomingMessage(TrelanMessage msg);
    /// A published object that a subscription of this client takes in. Its flags are not part of a
    /// notification, and are those of a default object.
    void incomingObject(TrelanObject msg);
    /// A command to this client, a command to everybody, or an answer to a command of this client.
    void incomingCommand(TrelanCommand msg);
    /// The connection dropped by itself; never emitted by close().
    void busDisconnected();
    /// The connection is made and the handshake has been sent.
    void kelbusConnected();
    /// The bus has refused the handshake, and the connection is closed.
    void handshakeRefused();
    /// The bus has accepted the handshake: isOpen() is true now.
    void handshakeAccepted();
    /// The bus has removed the object, in order with its changes. Only with setTakesRemovals().
    void objectRemoved(QString name);

public Q_SLOTS:
    /// Connects and sends the handshake. True at once on an open receiver; false at once, without
    /// touching the socket, when the port is 0.
    bool open();
    /// Ends the connection without any signal, after a pause of 100 ms (none in Prompt mode). What
    /// was not sent is lost; what is remembered of past messages stays.
    void close();

private Q_SLOTS:
    void socketConnected();
    void socketDisconnected();
    void socketError(QAbstractSocket::SocketError error);
    void onSocketReadyRead();
    bool handshake();
    bool request(QString cmd, QVariantMap data = QVariantMap());
    bool reply(QString cmd, TrelanError error, QVariantMap data = QVariantMap());

private:
    class Private;
    const std::unique_ptr<Private> d;

    static std::atomic<quint16> _msgPort;
    static std::atomic<quint32> _msgHost;
};

} // namespace bus
