#include "jetstreambus.h"

#include "natsconnection.h"
#include "payload.h"

namespace
{

const QByteArray SUBJECT = "bench";
const QByteArray ANSWERS = "answers";
const QByteArray STREAM = R"({"name":"bench","subjects":["bench"],"storage":"file"})";

class JetStreamPublisher : public Publisher
{
public:
    bool open(quint16 port)
    {
        return _connection.open(port) && _connection.subscribe(ANSWERS) &&
               _connection.send(
                   NatsConnection::message("$JS.API.STREAM.CREATE.bench", STREAM, ANSWERS)) &&
               takeAnswers(1);
    }

    bool publish(const QVariantMap &content) override { return publishAll(content, 1); }
    bool publishAll(const QVariantMap &content, int number) override
    {
        QByteArray bytes;
        for (int i = 0; i < number; ++i)
            bytes += NatsConnection::message(SUBJECT, _payload.pack(content), ANSWERS);
        return _connection.send(bytes) && takeAnswers(number);
    }

private:
    bool takeAnswers(int number)
    {
        bool good = true;
        const auto take = [&](const QByteArray &answer) {
            good = good && !answer.contains("\"error\"");
            --number;
        };
        while (number > 0) {
            if (!_connection.read(take))
                return false;
        }
        return good;
    }

    const Payload _payload {Payload::Json};
    NatsConnection _connection;
};

} // namespace

JetStreamBus::JetStreamBus(const QStringList &address)
    : _port(address.value(0).toUShort())
{}

std::unique_ptr<Publisher> JetStreamBus::connectPublisher()
{
    auto publisher = std::make_unique<JetStreamPublisher>();
    return publisher->open(_port) ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> JetStreamBus::connectReceiver(int /*number*/, Arrivals & /*arrivals*/)
{
    return nullptr;
}
