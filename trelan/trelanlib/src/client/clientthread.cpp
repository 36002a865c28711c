#include "client/clientthread.h"

#include <eventdispatcher.h>

namespace bus
{

class ClientThread::Worker : public morvik::AbstractWorker
{
public:
    explicit Worker(const ClientThread &client)
        : _clientName(client._clientName)
        , _settings(client._settings)
        , _door(client._door)
        , _events(client._events)
    {}

    ~Worker() override { stopNow(); }

    bool doStart() override
    {
        markClientThread();
        _engine = std::make_unique<ClientEngine>(_clientName, _settings, _door, _events);
        _engine->start();
        return true;
    }

    bool doStop() override
    {
        stopNow();
        return true;
    }

private:
    void stopNow()
    {
        _engine.reset();
        _door->close(); // also where the thread has never run
    }

    const QString _clientName;
    const TrelanClientSettings _settings;
    const std::shared_ptr<ClientDoor> _door;
    ClientEvents &_events;
    std::unique_ptr<ClientEngine> _engine;
};

ClientThread::ClientThread(const QString &clientName, const TrelanClientSettings &settings,
                           const std::shared_ptr<ClientDoor> &door, ClientEvents &events)
    : _clientName(clientName)
    , _settings(settings)
    , _door(door)
    , _events(events)
{}

ClientThread::~ClientThread()
{
    stop();
}

bool ClientThread::doStart()
{
    QThread *thread = addWorkerToThread(new Worker(*this));
    auto dispatcher = std::make_unique<EventDispatcher>();
    if (dispatcher->open()) // else the thread takes Qt's own, or fails as this has
        thread->setEventDispatcher(dispatcher.release());
    thread->start(QThread::InheritPriority);
    return true;
}

} // namespace bus
