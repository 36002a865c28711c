#pragma once

#include <trelancontroller.h>

/// \brief A client with both workers, which hears of all rooms and answers the command "rooms".
class Thermostat : public bus::TrelanController
{
public:
    explicit Thermostat(QObject *parent = nullptr);

protected:
    bool doStart() override;
    void prepareQueryWorker(bus::TrelanQueryWorker *worker) override;

private:
    void hear(const bus::TrelanObject &room);
    void answer(const bus::TrelanCommand &call);
};
