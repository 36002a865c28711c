#pragma once

#include "trelanbusglobal.h"
#include "trelanbussettings.h"

#include <QtCore/QString>

#include <memory>

namespace bus
{

/// \brief A bus server inside this process: what `trelanbusd` runs, and what a test or an
/// application can embed.
///
/// It keeps the last value of every stored object, permanent ones on disk, answers the query
/// channel of its clients and delivers on their message channel, and serves each as if it were
/// alone: a client that sends half a frame, rubbish or nothing delays no other.
///
/// Threads: the bus runs in threads of its own (one for the clients, one for the disk, one for
/// large requests), so that blocking channels may be used from any thread, the one that started
/// the bus included. The methods of one instance may not be called from two threads at once. An
/// application object has to exist; an event loop need not run.
///
/// \code
/// bus::TrelanBus server;
/// bus::TrelanBusSettings settings;
/// settings.setQueryPort(0); // any free port
/// settings.setMsgPort(0);
/// if (!server.start(settings))
///     qFatal("%s", qUtf8Printable(server.errorString()));
/// bus::TrelanQueryHandler::setQueryPort(server.queryPort());
/// \endcode
class TRELANBUS_EXPORT TrelanBus
{
public:
    /// Where permanent objects are kept.
    enum Storage {
        MemoryOnly, ///< no data folder was given
        OnDisk,     ///< an acknowledged publish of a permanent object is on disk
        Unusable    ///< the data folder cannot be used; permanent publishes are refused
    };

    TrelanBus();
    /// Stops the bus.
    ~TrelanBus();
    Q_DISABLE_COPY(TrelanBus)

    /// Starts to listen, with the permanent objects of the data folder loaded, and returns when it
    /// does. False if it cannot, or runs already; errorString() says why. Reading a large data
    /// folder takes its time.
    bool start(const TrelanBusSettings &settings = TrelanBusSettings());

    /// Closes all connections, after everything that was handed to the disk is on it, and returns
    /// when all threads have ended. Does nothing on a bus that does not run.
    void stop();

    bool isRunning() const;

    /// Port of the query channel; 0 while not running.
    quint16 queryPort() const;
    /// Port of the message channel; 0 while not running.
    quint16 msgPort() const;

    Storage storage() const;

    /// Why the last start() failed, or why the storage is unusable; empty otherwise.
    QString errorString() const;

private:
    class Thread;

    std::unique_ptr<Thread> _thread;
    QString _errorString;
};

} // namespace bus
