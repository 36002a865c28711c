#include "relaybus.h"

#include "arrivals.h"
#include "relay.h"

#include <QtCore/QJsonDocument>

using relay::FrameReader;
using relay::Length;

namespace
{

class RelayPublisher : public Publisher
{
public:
    bool open(quint16 port) { return _socket.open(port); }

    bool publish(const QVariantMap &content) override { return publishAll(content, 1); }
    bool publishAll(const QVariantMap &content, int number) override
    {
        const QByteArray &frame = frameOf(content);
        for (int i = 0; i < number; ++i) {
            if (!_socket.write(frame.constData(), size_t(frame.size())))
                return false;
        }
        Length acknowledgement = 0;
        for (int i = 0; i < number; ++i) {
            if (!_socket.readAll(reinterpret_cast<char *>(&acknowledgement),
                                 sizeof(acknowledgement)))
                return false;
        }
        return true;
    }

private:
    /// Each content is encoded once, and known again by where its data lie.
    const QByteArray &frameOf(const QVariantMap &content)
    {
        const auto known = _frames.find(&content.first());
        if (known != _frames.end())
            return known->second.bytes;
        const QByteArray bytes = QJsonDocument::fromVariant(content).toJson(QJsonDocument::Compact);
        return _frames.emplace(&content.first(), Frame {content, relay::frame(bytes)})
            .first->second.bytes;
    }

    struct Frame
    {
        QVariantMap content; // shares its data with what was asked for, and keeps them
        QByteArray bytes;
    };

    LoopbackSocket _socket;
    std::map<const QVariant *, Frame> _frames;
};

/// All receivers of the process, which wait together.
struct Receivers
{
    relay::Watch watch;
    std::map<int, FrameReader> readers;
    Arrivals *arrivals = nullptr;
};

Receivers &receivers()
{
    static Receivers _receivers;
    return _receivers;
}

} // namespace

RelayBus::RelayBus(const QStringList &address)
    : _port(address.value(0).toUShort())
{}

std::unique_ptr<Publisher> RelayBus::connectPublisher()
{
    auto publisher = std::make_unique<RelayPublisher>();
    return publisher->open(_port) ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> RelayBus::connectReceiver(int /*number*/, Arrivals &arrivals)
{
    const QByteArray wish = relay::frame({});
    Length acknowledgement = 1;
    LoopbackSocket socket;
    if (!socket.open(_port) || !socket.write(wish.constData(), size_t(wish.size())) ||
        !socket.readAll(reinterpret_cast<char *>(&acknowledgement), sizeof(acknowledgement)))
        return nullptr;
    const int descriptor = socket.descriptor();
    receivers().arrivals = &arrivals;
    receivers().watch.add(descriptor);
    receivers().readers.emplace(descriptor, FrameReader(std::move(socket)));
    return std::make_unique<Receiver>();
}

void RelayBus::receive()
{
    Receivers &all = receivers();
    bool open = true;
    while (open)
        all.watch.wait([&](int descriptor) {
            open = all.readers.at(descriptor).read([&](const char * /*data*/, size_t size) {
                all.arrivals->count(int(size - sizeof(Length)));
            });
        });
}

void RelayBus::serve()
{
    relay::Relay server;
    if (!server.listen())
        return;
    ready({QString::number(server.port())});
    while (true)
        server.step();
}
