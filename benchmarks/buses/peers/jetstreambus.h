#pragma once

#include "bus.h"

/// \brief nats-server with a stream in files: each message has an answer of its own once the
/// stream has it.
///
/// Nobody receives.
class JetStreamBus : public Bus
{
public:
    /// \a address: the port of the server.
    explicit JetStreamBus(const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;

private:
    const quint16 _port;
};
