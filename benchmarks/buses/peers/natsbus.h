#pragma once

#include "bus.h"
#include "payload.h"

/// \brief nats-server, whose messages are acknowledged by the answer to a PING behind them.
class NatsBus : public Bus
{
public:
    /// \a address: the port of the server.
    NatsBus(Payload::Form form, const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;

private:
    const Payload _payload;
    const quint16 _port;
};
