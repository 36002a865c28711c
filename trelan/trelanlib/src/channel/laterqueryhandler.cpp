#include "channel/laterqueryhandler.h"

#include "channel/queryhandlerprivate.h"

namespace bus
{

void LaterQueryHandler::publishLater(const TrelanObject &object, const Done &done)
{
    askLater(d->publishFrame(object), done);
}

void LaterQueryHandler::removeLater(const QStringList &names, const Done &done)
{
    askLater(d->removeFrame(names), done);
}

void LaterQueryHandler::sendMessageLater(const TrelanMessage &message, const Done &done)
{
    askLater(d->messageFrame(message), done);
}

void LaterQueryHandler::sendCommandLater(const TrelanCommand &command, const Done &done)
{
    askLater(d->commandFrame(command), done);
}

void LaterQueryHandler::subscribeLater(const QString &wildcard, const Done &done)
{
    askLater(d->subscribeFrame(wildcard, {}), done);
}

void LaterQueryHandler::subscribeLater(const QStringList &wildcards, const Done &done,
                                       SubscribeOptions options)
{
    askLater(d->subscribeFrame(wildcards, options), done);
}

void LaterQueryHandler::unsubscribeLater(const QString &wildcard, const Done &done)
{
    askLater(d->unsubscribeFrame(wildcard), done);
}

void LaterQueryHandler::unsubscribeLater(const QStringList &wildcards, const Done &done)
{
    askLater(d->unsubscribeFrame(wildcards), done);
}

void LaterQueryHandler::loadObjectLater(const QString &name, const Done &done)
{
    askLater(d->loadFrame(name), done);
}

void LaterQueryHandler::loadObjectsLater(const QString &wildcard, const Done &done)
{
    askLater(d->loadAllFrame(wildcard), done);
}

void LaterQueryHandler::takeReplies()
{
    d->takeReplies();
}

void LaterQueryHandler::askLater(const QByteArray &frame, const Done &done)
{
    d->requestLater(
        frame, done ? done : [](bool, const QVariantMap &) {});
}

} // namespace bus
