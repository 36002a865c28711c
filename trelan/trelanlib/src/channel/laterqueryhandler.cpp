#include "channel/laterqueryhandler.h"

#include "channel/queryhandlerprivate.h"

#include <wirekeys.h>

namespace bus
{

void LaterQueryHandler::publishLater(const TrelanObject &object)
{
    askLater(d->publishFrame(object));
}

void LaterQueryHandler::sendMessageLater(const TrelanMessage &message)
{
    askLater(d->messageFrame(message));
}

void LaterQueryHandler::sendCommandLater(const TrelanCommand &command)
{
    askLater(d->commandFrame(command));
}

void LaterQueryHandler::subscribeLater(const QString &wildcard)
{
    askLater(d->wildcardFrame(operations::SUBSCRIBE, wildcard));
}

void LaterQueryHandler::subscribeLater(const QStringList &wildcards)
{
    askLater(d->wildcardFrame(operations::SUBSCRIBE, wildcards));
}

void LaterQueryHandler::unsubscribeLater(const QString &wildcard)
{
    askLater(d->wildcardFrame(operations::UNSUBSCRIBE, wildcard));
}

void LaterQueryHandler::unsubscribeLater(const QStringList &wildcards)
{
    askLater(d->wildcardFrame(operations::UNSUBSCRIBE, wildcards));
}

void LaterQueryHandler::loadObjectLater(const QString &name,
                                        const std::function<void(const TrelanObject &)> &loaded)
{
    d->requestLater(d->loadFrame(name), [loaded](bool done, const QVariantMap &answer) {
        if (done)
            loaded(TrelanObject::fromVariantMap(answer));
    });
}

void LaterQueryHandler::takeReplies()
{
    d->takeReplies();
}

void LaterQueryHandler::askLater(const QByteArray &frame)
{
    d->requestLater(frame, [](bool, const QVariantMap &) {});
}

} // namespace bus
