#include "permanentbus.h"

#include "readings.h"

#include <trelanqueryhandler.h>

using bus::TrelanObject;
using bus::TrelanTransport;

namespace
{

class PermanentPublisher : public Publisher
{
public:
    bool open() { return _handler.open(); }

    bool publish(const QVariantMap &content) override { return _handler.publish(next(content)); }
    bool publishAll(const QVariantMap &content, int number) override
    {
        QList<TrelanObject> objects;
        for (int i = 0; i < number; ++i)
            objects.append(next(content));
        return _handler.publish(objects);
    }

private:
    static TrelanObject next(const QVariantMap &content)
    {
        TrelanObject object = readings::next(content);
        object.setPermanent(true);
        return object;
    }

    bus::TrelanQueryHandler _handler {QStringLiteral("publisher")};
};

} // namespace

PermanentBus::PermanentBus(const QStringList &address)
    : ChannelBus(TrelanTransport::Prompt, TrelanTransport::Light, address)
{}

std::unique_ptr<Publisher> PermanentBus::connectPublisher()
{
    auto publisher = std::make_unique<PermanentPublisher>();
    return publisher->open() ? std::move(publisher) : nullptr;
}
