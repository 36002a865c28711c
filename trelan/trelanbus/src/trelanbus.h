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
/// The bus keeps the last value of every stored object, permanent ones on disk. It answers its
/// clients on the query channel and delivers on the message channel. A client that sends half a
/// frame, rubbish or nothing delays no other client.
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

    /// Loads the permanent objects of the data folder and returns when the bus listens. False if it
    /// cannot, or if it runs already; errorString() says why. A large data folder takes its time.
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
