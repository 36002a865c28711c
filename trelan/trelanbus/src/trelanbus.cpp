#include "trelanbus.h"

#include "busserver.h"

#include <eventdispatcher.h>

#include <QtCore/QSemaphore>
#include <QtCore/QThread>

#include <cerrno>
#include <memory>

namespace bus
{

/// The thread of the bus, in which the server is made, used and destroyed. Members that report
/// about the server are written before the semaphore is released, and only read afterwards.
class TrelanBus::Thread : public QThread
{
public:
    explicit Thread(const TrelanBusSettings &settings)
        : _settings(settings)
    {}

    /// Returns when the server listens or has failed.
    bool startServer()
    {
        auto dispatcher = std::make_unique<EventDispatcher>();
        if (!dispatcher->open()) {
            _errorString = QStringLiteral("cannot watch anything: %1").arg(qt_error_string(errno));
            return false;
        }
        _dispatcher = dispatcher.get();
        setEventDispatcher(dispatcher.release());
        start();
        _settled.acquire();
        return _listening;
    }

    quint16 queryPort() const { return _queryPort; }
    quint16 msgPort() const { return _msgPort; }
    Storage storage() const { return _storage; }
    QString errorString() const { return _errorString; }

protected:
    void run() override
    {
        BusServer server(_settings, *_dispatcher);
        _listening = server.start();
        _queryPort = server.queryPort();
        _msgPort = server.msgPort();
        _storage = server.storage();
        _errorString = server.errorString();
        const bool listening = _listening;
        _settled.release();
        if (listening)
            exec();
    }

private:
    const TrelanBusSettings _settings;
    EventDispatcher *_dispatcher = nullptr; // belongs to the thread
    QSemaphore _settled;
    bool _listening = false;
    quint16 _queryPort = 0;
    quint16 _msgPort = 0;
    Storage _storage = MemoryOnly;
    QString _errorString;
};

TrelanBus::TrelanBus() = default;

TrelanBus::~TrelanBus()
{
    stop();
}

bool TrelanBus::start(const TrelanBusSettings &settings)
{
    if (_thread) {
        _errorString = QStringLiteral("the bus runs already");
        return false;
    }
    auto thread = std::make_unique<Thread>(settings);
    const bool listening = thread->startServer();
    _errorString = thread->errorString();
    if (!listening) {
        thread->wait();
        return false;
    }
    _thread = std::move(thread);
    return true;
}

void TrelanBus::stop()
{
    if (!_thread)
        return;
    _thread->quit();
    _thread->wait();
    _thread.reset();
}

bool TrelanBus::isRunning() const
{
    return _thread != nullptr;
}

quint16 TrelanBus::queryPort() const
{
    return _thread ? _thread->queryPort() : 0;
}

quint16 TrelanBus::msgPort() const
{
    return _thread ? _thread->msgPort() : 0;
}

TrelanBus::Storage TrelanBus::storage() const
{
    return _thread ? _thread->storage() : MemoryOnly;
}

QString TrelanBus::errorString() const
{
    return _errorString;
}

} // namespace bus
