#pragma once

#include "bus.h"

#include <trelantransport.h>

/// \brief This bus, through the channel classes themselves.
///
/// Its server is trelanbusd, which writes the coding Light and reads every coding.
class ChannelBus : public Bus
{
public:
    /// \a address: the ports of the query and of the message channel.
    ChannelBus(bus::TrelanTransport::Mode mode, bus::TrelanTransport::Coding coding,
               const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;
};
