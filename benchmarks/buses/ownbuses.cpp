#include "clientbus.h"
#include "controllerbus.h"
#include "permanentbus.h"
#include "relaybus.h"

using bus::TrelanTransport;

std::unique_ptr<Bus> makeBus(const QString &name, const QStringList &address)
{
    if (name == QLatin1String("paced-classic"))
        return std::make_unique<ChannelBus>(TrelanTransport::Paced, TrelanTransport::Classic,
                                            address);
    if (name == QLatin1String("prompt-classic"))
        return std::make_unique<ChannelBus>(TrelanTransport::Prompt, TrelanTransport::Classic,
                                            address);
    if (name == QLatin1String("prompt-light"))
        return std::make_unique<ChannelBus>(TrelanTransport::Prompt, TrelanTransport::Light,
                                            address);
    if (name == QLatin1String("controllers"))
        return std::make_unique<ControllerBus>(TrelanTransport::Prompt, TrelanTransport::Light,
                                               address);
    if (name == QLatin1String("client"))
        return std::make_unique<ClientBus>(address);
    if (name == QLatin1String("permanent"))
        return std::make_unique<PermanentBus>(address);
    if (name == QLatin1String("relay"))
        return std::make_unique<RelayBus>(address);
    return nullptr;
}
