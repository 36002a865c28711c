#pragma once

#include "channelbus.h"

/// \brief This bus, as applications use it: from a signal of one controller to a slot at another.
///
/// Nothing tells a controller that something is acknowledged, so that there is only the way to
/// receivers.
class ControllerBus : public ChannelBus
{
public:
    using ChannelBus::ChannelBus;

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;
};
