#include "channelbus.h"

#include "arrivals.h"
#include "readings.h"

#include <trelanmessagereciever.h>
#include <trelanqueryhandler.h>

#include <QtCore/QEventLoop>
#include <QtCore/QTimer>

using bus::TrelanMessageReciever;
using bus::TrelanObject;
using bus::TrelanQueryHandler;
using bus::TrelanTransport;

namespace
{

class ChannelPublisher : public Publisher
{
public:
    bool open() { return _handler.open(); }

    bool publish(const QVariantMap &content) override
    {
        return _handler.publish(readings::next(content));
    }
    bool publishAll(const QVariantMap &content, int number) override
    {
        QList<TrelanObject> objects;
        for (int i = 0; i < number; ++i)
            objects.append(readings::next(content));
        return _handler.publish(objects);
    }

private:
    TrelanQueryHandler _handler {QStringLiteral("publisher")};
};

class ChannelReceiver : public Receiver
{
public:
    ChannelReceiver(const QString &name, Arrivals &arrivals)
        : _handler(name)
        , _channel(name)
    {
        QObject::connect(
            &_channel, &TrelanMessageReciever::incomingObject,
            [&arrivals](const TrelanObject &object) { arrivals.count(object.content()); });
    }

    bool open()
    {
        constexpr int PATIENCE_MS = 5000;
        bool accepted = false;
        QEventLoop loop;
        QObject::connect(&_channel, &TrelanMessageReciever::handshakeAccepted, &loop, [&] {
            accepted = true;
            loop.quit();
        });
        QTimer::singleShot(PATIENCE_MS, &loop, &QEventLoop::quit);
        if (!_channel.open())
            return false;
        loop.exec();
        return accepted && _handler.open() && _handler.subscribe(readings::WILDCARD);
    }

private:
    TrelanQueryHandler _handler;
    TrelanMessageReciever _channel;
};

} // namespace

ChannelBus::ChannelBus(TrelanTransport::Mode mode, TrelanTransport::Coding coding,
                       const QStringList &address)
{
    TrelanTransport::setMode(mode);
    TrelanTransport::setCoding(coding);
    TrelanQueryHandler::setQueryPort(address.value(0).toUShort());
    TrelanMessageReciever::setMsgPort(address.value(1).toUShort());
}

std::unique_ptr<Publisher> ChannelBus::connectPublisher()
{
    auto publisher = std::make_unique<ChannelPublisher>();
    return publisher->open() ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> ChannelBus::connectReceiver(int number, Arrivals &arrivals)
{
    auto receiver = std::make_unique<ChannelReceiver>(readings::receiver(number), arrivals);
    return receiver->open() ? std::move(receiver) : nullptr;
}
