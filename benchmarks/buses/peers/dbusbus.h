#pragma once

#include "bus.h"

/// \brief QtDBus, through a dbus-daemon of its own.
///
/// The daemon keeps nothing and acknowledges nothing: what acknowledges is a service, whose method
/// the publisher calls. What receivers get is a signal, the shortest way to them; where that is to
/// be acknowledged, too, the daemon answers a question behind it.
class DBusBus : public Bus
{
public:
    /// \a address: that of the daemon.
    explicit DBusBus(const QStringList &address);

    std::unique_ptr<Publisher> connectPublisher() override;
    std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) override;
    /// The service.
    void serve() override;

private:
    const QString _address;
};
