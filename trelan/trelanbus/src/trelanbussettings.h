#pragma once

#include "trelanbusglobal.h"

#include <trelantransport.h>

#include <QtCore/QSharedDataPointer>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

namespace bus
{

/// \brief Where a bus listens, where it keeps permanent objects, and how much it takes.
///
/// Sizes are in bytes, times in milliseconds. Every limit is at least 1: a setter raises a smaller
/// value to that. What is not set is the default of the daemon, which each getter names.
///
/// A plain value, cheap to copy. Distinct instances may be used from different threads.
class TRELANBUS_EXPORT TrelanBusSettings
{
public:
    TrelanBusSettings();
    TrelanBusSettings(const TrelanBusSettings &other);
    ~TrelanBusSettings();
    TrelanBusSettings &operator=(const TrelanBusSettings &other);

    bool operator==(const TrelanBusSettings &other) const;
    bool operator!=(const TrelanBusSettings &other) const;

    /// \name Where the bus listens
    /// @{

    /// The address of both channels: 127.0.0.1.
    QHostAddress host() const;
    void setHost(const QHostAddress &host);

    /// The port of the query channel: 43535. 0 is any free port, see TrelanBus::queryPort().
    quint16 queryPort() const;
    void setQueryPort(quint16 port);
    /// The port of the message channel: 43537. 0 is any free port, see TrelanBus::msgPort().
    quint16 msgPort() const;
    void setMsgPort(quint16 port);

    /// A TCP socket of the caller that listens already, from which the query channel takes its
    /// connections in place of host and port; none: -1, as is every negative value. The socket
    /// stays the caller's and listens on after the bus has stopped.
    int queryDescriptor() const;
    void setQueryDescriptor(int descriptor);
    /// The socket of the message channel, see queryDescriptor(); none: -1.
    int msgDescriptor() const;
    void setMsgDescriptor(int descriptor);

    /// @}
    /// \name Who may connect
    /// @{

    enum Admission {
        Me,   ///< the user of this process, and root
        Users ///< every user of this machine, and whoever else reaches the ports
    };

    /// Whose handshakes are accepted: those of all users, Users. Others are refused with
    /// TrelanError::UnregisteredClient.
    Admission admission() const;
    void setAdmission(Admission admission);

    /// @}
    /// \name What it keeps
    /// @{

    /// The folder of the permanent objects and the stored messages, which is made if it does not
    /// exist, and belongs to the bus alone: others can neither read nor enter it. A folder
    /// that others can enter is closed to them if it belongs to the user of this process and holds
    /// nothing else. If not, it is refused. Empty, the default: they live in memory only.
    QString dataFolder() const;
    void setDataFolder(const QString &folder);
    /// Whether a bus whose data folder cannot be used fails to start. Otherwise, the default, it
    /// starts and refuses permanent objects and stored messages.
    bool requireStorage() const;
    void setRequireStorage(bool require);

    /// Stored objects: 100,000.
    int maxObjects() const;
    void setMaxObjects(int objects);
    /// Bytes of all stored objects together: 256 MiB.
    qint64 maxObjectBytes() const;
    void setMaxObjectBytes(qint64 bytes);

    /// @}
    /// \name What one client may send
    /// @{

    /// Bytes of the payload of one frame, in both directions: 16 MiB. 1 GiB at most.
    qint64 maxFrameSize() const;
    void setMaxFrameSize(qint64 bytes);
    /// Bytes that the payload of one request may inflate to: 64 MiB. 1 GiB at most.
    qint64 maxInflatedSize() const;
    void setMaxInflatedSize(qint64 bytes);
    /// Connections of all clients together: 1024.
    int maxConnections() const;
    void setMaxConnections(int connections);
    /// Wildcards of one client: 10,000.
    int maxSubscriptions() const;
    void setMaxSubscriptions(int wildcards);

    /// @}
    /// \name What waits for clients
    /// @{

    /// Messages that wait for one client: 1000.
    int maxClientMessages() const;
    void setMaxClientMessages(int messages);
    /// Bytes of the messages that wait for one client: 16 MiB.
    qint64 maxClientBytes() const;
    void setMaxClientBytes(qint64 bytes);
    /// Absent clients that something waits for: 10,000.
    int maxQueues() const;
    void setMaxQueues(int queues);
    /// Bytes of all waiting messages together: 256 MiB.
    qint64 maxQueuedBytes() const;
    void setMaxQueuedBytes(qint64 bytes);
    /// From so many messages for one client on, or a sixteenth of its bytes, only the newest value
    /// of a stored object waits: 200.
    int conflateAbove() const;
    void setConflateAbove(int messages);
    /// Objects whose newest value waits for one client: 100,000. The names of all clients have as
    /// much room as all messages, besides them; past that, clients with more than their share are
    /// closed.
    int maxClientNames() const;
    void setMaxClientNames(int objects);
    /// How long a message waits for its receiver: an hour.
    int messageLifetime() const;
    void setMessageLifetime(int milliseconds);

    /// @}
    /// \name How it talks
    /// @{

    /// How frames are written: TrelanTransport::coding() of the moment when these settings are
    /// made.
    TrelanTransport::Coding coding() const;
    void setCoding(TrelanTransport::Coding coding);

    /// The time from the connection to the handshake: 30 s.
    int handshakeTimeout() const;
    void setHandshakeTimeout(int milliseconds);
    /// How long a begun frame, or an answer that is not read, may make no progress: 30 s.
    int stallTimeout() const;
    void setStallTimeout(int milliseconds);
    /// How long the bus reads on after it has refused a frame above the limit, so that the refusal
    /// arrives: 2 s.
    int discardTime() const;
    void setDiscardTime(int milliseconds);

    /// @}

private:
    class Private;

    QSharedDataPointer<Private> _d;
};

} // namespace bus
