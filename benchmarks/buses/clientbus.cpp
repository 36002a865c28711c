#include "clientbus.h"

#include "arrivals.h"
#include "readings.h"

#include <trelanclient.h>

#include <vector>

namespace
{

constexpr int PATIENCE_MS = 10000;
const QString ECHO = QStringLiteral("echo");

bus::TrelanClientSettings settingsOf(const QStringList &address)
{
    return bus::TrelanClientSettings().setPorts(address.value(1).toUShort(),
                                                address.value(0).toUShort());
}

bool isDone(const bus::TrelanPending &pending)
{
    return pending.wait(PATIENCE_MS) && pending.isDone();
}

class ClientPublisher : public Publisher
{
public:
    explicit ClientPublisher(const QStringList &address)
        : _client(QStringLiteral("publisher"), settingsOf(address))
    {}
    bool open() { return _client.waitForConnected(PATIENCE_MS); }

    bool publish(const QVariantMap &content) override
    {
        return isDone(_client.publish(readings::next(content)));
    }
    bool publishAll(const QVariantMap &content, int number) override
    {
        std::vector<bus::TrelanPending> pending;
        for (int i = 0; i < number; ++i)
            pending.push_back(_client.publish(readings::next(content)));
        for (const bus::TrelanPending &one : pending) {
            if (!isDone(one))
                return false;
        }
        return true;
    }
    bool pass(const QVariantMap &content) override
    {
        _client.publish(readings::next(content));
        return true;
    }
    bool passAll(const QVariantMap &content, int number) override
    {
        for (int i = 0; i < number; ++i)
            pass(content);
        return true;
    }
    bool call(const QVariantMap &content) override
    {
        return isDone(_client.call(readings::receiver(0), ECHO, content));
    }

private:
    bus::TrelanClient _client;
};

class ClientReceiver : public QObject, public Receiver
{
public:
    ClientReceiver(int number, const QStringList &address, Arrivals &arrivals)
        : _client(readings::receiver(number), settingsOf(address))
    {
        _client.serve(ECHO, this, [](const bus::TrelanCommand &call) { return call.params(); });
        _watch =
            _client.watch(readings::WILDCARD, this, [&arrivals](const bus::TrelanObject &object) {
                arrivals.count(object.content());
            });
    }
    bool open() { return isDone(_watch); }

private:
    bus::TrelanClient _client;
    bus::TrelanWatch _watch;
};

} // namespace

ClientBus::ClientBus(const QStringList &address)
    : ChannelBus(bus::TrelanTransport::Prompt, bus::TrelanTransport::Light, address)
    , _address(address)
{}

std::unique_ptr<Publisher> ClientBus::connectPublisher()
{
    auto publisher = std::make_unique<ClientPublisher>(_address);
    return publisher->open() ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> ClientBus::connectReceiver(int number, Arrivals &arrivals)
{
    auto receiver = std::make_unique<ClientReceiver>(number, _address, arrivals);
    return receiver->open() ? std::move(receiver) : nullptr;
}
