#pragma once

#include "bus.h"
#include "payload.h"

/// \brief mosquitto with QoS 1 at both ends, by its own client library.
class MqttBus : public Bus
{
public:
    /// \a address: the port of the broker.
    MqttBus(Payload::Form form, const QStringList &address);
    ~MqttBus() override;

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;

private:
    const Payload _payload;
    const int _port;
};
