#pragma once

#include "client/clientengine.h"

#include <abstractworker.h>
#include <abstractworkercontroller.h>

#include <memory>

namespace bus
{

/// \brief The thread of a client: it makes the engine there and takes it down, also at the end of
/// the process. Internal to the library.
class ClientThread : public morvik::AbstractWorkerController
{
    Q_OBJECT

public:
    ClientThread(const QString &clientName, const TrelanClientSettings &settings,
                 const std::shared_ptr<ClientDoor> &door, ClientEvents &events);
    ~ClientThread() override;

protected:
    bool doStart() override;

private:
    class Worker;

    const QString _clientName;
    const TrelanClientSettings _settings;
    const std::shared_ptr<ClientDoor> _door;
    ClientEvents &_events;
};

} // namespace bus
