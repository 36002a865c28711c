#pragma once

#include "bus.h"

/// \brief No bus: a process that acknowledges frames of bytes and passes them on.
///
/// What is left of a bus without names, codec and acknowledgement by receivers: the floor for
/// everything that goes through a third process.
class RelayBus : public Bus
{
public:
    /// \a address: the port.
    explicit RelayBus(const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;
    void receive() override;
    void serve() override;

private:
    const quint16 _port;
};
