#include "natsbus.h"

#include "arrivals.h"
#include "natsconnection.h"

#include <QtCore/QSocketNotifier>

namespace
{

const QByteArray SUBJECT = "bench";

class NatsPublisher : public Publisher
{
public:
    explicit NatsPublisher(const Payload &payload)
        : _payload(payload)
    {}
    bool open(quint16 port) { return _connection.open(port); }

    bool publish(const QVariantMap &content) override { return publishAll(content, 1); }
    bool publishAll(const QVariantMap &content, int number) override
    {
        QByteArray bytes;
        for (int i = 0; i < number; ++i) {
            bytes += NatsConnection::message(SUBJECT, _payload.pack(content));
            if (bytes.size() < ENOUGH || i == number - 1)
                continue;
            if (!_connection.send(bytes))
                return false;
            bytes.clear();
        }
        return _connection.sendAndFlush(bytes);
    }

private:
    static constexpr int ENOUGH = 32 * 1024; // for one write

    const Payload &_payload;
    NatsConnection _connection;
};

class NatsReceiver : public Receiver
{
public:
    NatsReceiver(const Payload &payload, Arrivals &arrivals)
        : _payload(payload)
        , _arrivals(arrivals)
    {}

    bool open(quint16 port)
    {
        if (!_connection.open(port) || !_connection.subscribe(SUBJECT))
            return false;
        _notifier =
            std::make_unique<QSocketNotifier>(_connection.descriptor(), QSocketNotifier::Read);
        QObject::connect(_notifier.get(), &QSocketNotifier::activated, [this] {
            const bool open = _connection.read(
                [this](const QByteArray &payload) { _arrivals.count(_payload.unpack(payload)); });
            _notifier->setEnabled(open);
        });
        return true;
    }

private:
    const Payload &_payload;
    Arrivals &_arrivals;
    NatsConnection _connection;
    std::unique_ptr<QSocketNotifier> _notifier;
};

} // namespace

NatsBus::NatsBus(Payload::Form form, const QStringList &address)
    : _payload(form)
    , _port(address.value(0).toUShort())
{}

std::unique_ptr<Publisher> NatsBus::connectPublisher()
{
    auto publisher = std::make_unique<NatsPublisher>(_payload);
    return publisher->open(_port) ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> NatsBus::connectReceiver(int /*number*/, Arrivals &arrivals)
{
    auto receiver = std::make_unique<NatsReceiver>(_payload, arrivals);
    return receiver->open(_port) ? std::move(receiver) : nullptr;
}
