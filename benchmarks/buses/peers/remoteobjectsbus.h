#pragma once

#include "bus.h"

#include <QtCore/QUrl>

/// \brief Qt Remote Objects over TCP.
///
/// The server is the process with the sources: a slot takes what is published, and a signal of
/// another source hands it to the replicas of the receivers.
class RemoteObjectsBus : public Bus
{
public:
    /// \a address: the URL of the host node.
    explicit RemoteObjectsBus(const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;
    void serve() override;

private:
    const QUrl _url;
};
