#pragma once

#include "channelbus.h"

/// \brief This bus, as TrelanClient has it: from publish() until the pending operation has ended,
/// from publish() to the function of a watch, and from call() to its answer.
class ClientBus : public ChannelBus
{
public:
    explicit ClientBus(const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;

private:
    const QStringList _address;
};
