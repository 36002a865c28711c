#include "mqttbus.h"

#include "arrivals.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <mosquitto.h>

namespace
{

constexpr const char *TOPIC = "bench";
constexpr int QOS = 1;
constexpr int KEEPALIVE_S = 600;
constexpr int PATIENCE_MS = 10000;
constexpr int UNBOUNDED = 0;

/// A connection to the broker, used from one thread.
class Client
{
public:
    Client(const QByteArray &name, const Payload &payload)
        : _payload(payload)
        , _client(mosquitto_new(name.constData(), true, this))
    {
        mosquitto_int_option(_client, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_max_inflight_messages_set(_client, UNBOUNDED);
        mosquitto_connect_callback_set(_client, [](mosquitto *, void *client, int code) {
            static_cast<Client *>(client)->_connected = code == 0;
        });
        mosquitto_publish_callback_set(_client, [](mosquitto *, void *client, int) {
            ++static_cast<Client *>(client)->_acknowledged;
        });
        mosquitto_subscribe_callback_set(
            _client, [](mosquitto *, void *client, int, int number, const int *granted) {
                static_cast<Client *>(client)->_subscribed = number == 1 && granted[0] == QOS;
            });
        mosquitto_message_callback_set(
            _client, [](mosquitto *, void *client, const mosquitto_message *message) {
                static_cast<Client *>(client)->receive(*message);
            });
    }
    ~Client() { mosquitto_destroy(_client); }
    Q_DISABLE_COPY(Client)

    bool open(int port)
    {
        return mosquitto_connect(_client, "127.0.0.1", port, KEEPALIVE_S) == MOSQ_ERR_SUCCESS &&
               loopUntil([this] { return _connected; });
    }

    bool publish(const QVariantMap &content, int number)
    {
        _acknowledged = 0;
        for (int i = 0; i < number; ++i) {
            const QByteArray bytes = _payload.pack(content);
            if (mosquitto_publish(_client, nullptr, TOPIC, bytes.size(), bytes.constData(), QOS,
                                  false) != MOSQ_ERR_SUCCESS)
                return false;
        }
        return loopUntil([this, number] { return _acknowledged == number; });
    }

    /// From now on the application's event loop drives it.
    bool subscribe(Arrivals &arrivals)
    {
        _arrivals = &arrivals;
        if (mosquitto_subscribe(_client, nullptr, TOPIC, QOS) != MOSQ_ERR_SUCCESS ||
            !loopUntil([this] { return _subscribed; }))
            return false;
        _notifier =
            std::make_unique<QSocketNotifier>(mosquitto_socket(_client), QSocketNotifier::Read);
        QObject::connect(_notifier.get(), &QSocketNotifier::activated, [this] {
            mosquitto_loop_read(_client, 1);
            if (mosquitto_want_write(_client))
                mosquitto_loop_write(_client, 1);
        });
        return true;
    }

private:
    template <typename Reached>
    bool loopUntil(const Reached &reached)
    {
        const QDeadlineTimer deadline(PATIENCE_MS);
        while (!reached()) {
            if (mosquitto_loop(_client, PATIENCE_MS, 1) != MOSQ_ERR_SUCCESS ||
                deadline.hasExpired())
                return false;
        }
        return true;
    }

    void receive(const mosquitto_message &message)
    {
        if (_arrivals)
            _arrivals->count(_payload.unpack(QByteArray::fromRawData(
                static_cast<const char *>(message.payload), message.payloadlen)));
    }

    const Payload &_payload;
    mosquitto *_client;
    std::unique_ptr<QSocketNotifier> _notifier;
    Arrivals *_arrivals = nullptr;
    bool _connected = false;
    bool _subscribed = false;
    int _acknowledged = 0;
};

class MqttPublisher : public Publisher
{
public:
    explicit MqttPublisher(const Payload &payload)
        : _client("publisher", payload)
    {}
    bool open(int port) { return _client.open(port); }

    bool publish(const QVariantMap &content) override { return _client.publish(content, 1); }
    bool publishAll(const QVariantMap &content, int number) override
    {
        return _client.publish(content, number);
    }

private:
    Client _client;
};

class MqttReceiver : public Receiver
{
public:
    MqttReceiver(int number, const Payload &payload)
        : _client("receiver" + QByteArray::number(number), payload)
    {}
    bool open(int port, Arrivals &arrivals)
    {
        return _client.open(port) && _client.subscribe(arrivals);
    }

private:
    Client _client;
};

} // namespace

MqttBus::MqttBus(Payload::Form form, const QStringList &address)
    : _payload(form)
    , _port(address.value(0).toInt())
{
    mosquitto_lib_init();
}

MqttBus::~MqttBus()
{
    mosquitto_lib_cleanup();
}

std::unique_ptr<Publisher> MqttBus::connectPublisher()
{
    auto publisher = std::make_unique<MqttPublisher>(_payload);
    return publisher->open(_port) ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> MqttBus::connectReceiver(int number, Arrivals &arrivals)
{
    auto receiver = std::make_unique<MqttReceiver>(number, _payload);
    return receiver->open(_port, arrivals) ? std::move(receiver) : nullptr;
}
