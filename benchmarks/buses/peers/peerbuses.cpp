#include "dbusbus.h"
#include "jetstreambus.h"
#include "mqttbus.h"
#include "natsbus.h"
#include "redisbus.h"
#include "remoteobjectsbus.h"

std::unique_ptr<Bus> makeBus(const QString &name, const QStringList &address)
{
    if (name == QLatin1String("dbus"))
        return std::make_unique<DBusBus>(address);
    if (name == QLatin1String("mosquitto"))
        return std::make_unique<MqttBus>(Payload::Json, address);
    if (name == QLatin1String("mosquitto-stream"))
        return std::make_unique<MqttBus>(Payload::DataStream, address);
    if (name == QLatin1String("nats"))
        return std::make_unique<NatsBus>(Payload::Json, address);
    if (name == QLatin1String("nats-stream"))
        return std::make_unique<NatsBus>(Payload::DataStream, address);
    if (name == QLatin1String("remoteobjects"))
        return std::make_unique<RemoteObjectsBus>(address);
    if (name == QLatin1String("redis"))
        return std::make_unique<RedisBus>(address);
    if (name.startsWith(QLatin1String("jetstream")))
        return std::make_unique<JetStreamBus>(address);
    return nullptr;
}
