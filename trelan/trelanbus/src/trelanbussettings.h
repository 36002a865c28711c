#pragma once

#include <trelantransport.h>

#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

namespace bus
{

/// \brief Where a bus listens, where it keeps permanent objects, and how much it takes.
///
/// Sizes are in bytes, times in milliseconds. A plain value; what is not set is the default of the
/// daemon.
struct TrelanBusSettings
{
    QHostAddress host = QHostAddress(QHostAddress::LocalHost);
    quint16 queryPort = 43535; ///< 0: any free port, see TrelanBus::queryPort()
    quint16 msgPort = 43537;   ///< 0: any free port, see TrelanBus::msgPort()
    /// A TCP socket of the caller that listens already, to take connections from in place of host
    /// and port; -1: none. It stays the caller's, and listens on after the bus has stopped.
    int queryDescriptor = -1;
    int msgDescriptor = -1; ///< likewise

    /// Folder of the permanent objects and the stored messages, made if it does not exist. Empty:
    /// they live in memory only.
    QString dataFolder;
    /// Whether a bus whose data folder cannot be used fails to start, rather than to start and to
    /// refuse permanent objects and stored messages.
    bool requireStorage = false;

    qint64 maxFrameSize = 16 * 1024 * 1024;    ///< payload of one frame, either way
    qint64 maxInflatedSize = 64 * 1024 * 1024; ///< what the payload of one request inflates to
    int maxConnections = 1024;
    int maxObjects = 100000;                     ///< stored objects
    qint64 maxObjectBytes = 256LL * 1024 * 1024; ///< stored objects together
    int maxSubscriptions = 10000;                ///< wildcards of one client

    int maxClientMessages = 1000;                ///< waiting for one client
    qint64 maxClientBytes = 16 * 1024 * 1024;    ///< likewise, in bytes
    int maxQueues = 10000;                       ///< absent clients that something waits for
    qint64 maxQueuedBytes = 256LL * 1024 * 1024; ///< waiting in all
    /// From so many deliveries for one client, or a sixteenth of its bytes, of a stored object only
    /// the newest value waits.
    int conflateAbove = 200;
    /// Objects whose newest value waits for one client. Names have as much room in all as messages
    /// have, besides them; past that, clients with more than their share are closed.
    int maxClientNames = 100000;
    int messageLifetime = 60 * 60 * 1000; ///< how long a message waits for its receiver

    /// How frames are written; what the process is set to when these settings are made.
    TrelanTransport::Coding coding = TrelanTransport::coding();

    int handshakeTimeout = 30000; ///< from the connection to the handshake
    int stallTimeout = 30000;     ///< a begun frame, or an unread reply, without progress
    int discardTime = 2000;       ///< reading on after a frame above the limit was refused
};

} // namespace bus
