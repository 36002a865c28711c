#pragma once

#include "bus.h"

/// \brief Redis as a store: a value is set under its name, and the answer is awaited.
///
/// Nobody receives.
class RedisBus : public Bus
{
public:
    /// \a address: the port of the server.
    explicit RedisBus(const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;

private:
    const int _port;
};
