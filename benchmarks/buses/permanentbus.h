#pragma once

#include "channelbus.h"

/// \brief This bus with permanent objects: what is acknowledged is on disk.
///
/// Its server is a trelanbusd with a data folder. Nobody receives.
class PermanentBus : public ChannelBus
{
public:
    explicit PermanentBus(const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
};
