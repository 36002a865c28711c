#pragma once

#include "bus.h"

#include <trelantransport.h>

/// \brief This bus, through the channel classes themselves.
///
/// Its server is trelanbusd or, for the coding that the daemon does not use, the bus embedded in a
/// process that does nothing else.
class ChannelBus : public Bus
{
public:
    /// \a address: the ports of the query and of the message channel.
    ChannelBus(bus::TrelanTransport::Mode mode, bus::TrelanTransport::Coding coding,
               const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;
    void serve() override;
};
