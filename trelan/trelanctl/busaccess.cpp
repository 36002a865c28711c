#include "busaccess.h"

#include "terminaltext.h"

#include <trelanmessagereciever.h>

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QHostInfo>

namespace trelanctl
{

namespace
{

/// The client library wants an IPv4 address. Null if there is none, and then \a errorText says why.
QHostAddress addressOf(const QString &host, QString &errorText)
{
    const QHostAddress numeric(host);
    if (!numeric.isNull())
        return numeric;
    const QHostInfo info = QHostInfo::fromName(host);
    const QList<QHostAddress> addresses = info.addresses();
    for (const QHostAddress &candidate : addresses) {
        if (candidate.protocol() == QAbstractSocket::IPv4Protocol)
            return candidate;
    }
    errorText = info.errorString();
    return {};
}

} // namespace

QString busPlace(const Arguments &arguments, quint16 port)
{
    return QStringLiteral("%1:%2").arg(terminal::escaped(arguments.host)).arg(port);
}

Outcome locateBus(const Arguments &arguments)
{
    const QString host = terminal::escaped(arguments.host);
    const QHostAddress given(arguments.host);
    if (arguments.host.isEmpty() || given.protocol() == QAbstractSocket::IPv6Protocol) {
        return {Usage,
                QStringLiteral("--host: an IPv4 address or a host name is expected, not '%1'")
                    .arg(host)};
    }
    QString fault;
    const QHostAddress address = addressOf(arguments.host, fault);
    if (address.isNull()) {
        return {NoBus,
                QStringLiteral("no bus: the host '%1' has no IPv4 address: %2").arg(host, fault)};
    }
    bus::TrelanQueryHandler::setQueryHost(address.toIPv4Address());
    bus::TrelanQueryHandler::setQueryPort(arguments.queryPort);
    bus::TrelanMessageReciever::setMsgHost(address.toIPv4Address());
    bus::TrelanMessageReciever::setMsgPort(arguments.messagePort);
    return {};
}

Outcome connectTo(bus::TrelanQueryHandler &handler, const Arguments &arguments)
{
    Outcome located = locateBus(arguments);
    if (located.code != Done || handler.open())
        return located;
    return failureOf(handler, arguments, false);
}

Outcome failureOf(const bus::TrelanQueryHandler &handler, const Arguments &arguments,
                  bool connected)
{
    using bus::TrelanQueryHandler;
    const QString place = busPlace(arguments, arguments.queryPort);
    switch (handler.lastFailure()) {
    case TrelanQueryHandler::Refused:
        return refusal(arguments, handler.lastError());
    case TrelanQueryHandler::Timeout:
        return silentBus(arguments);
    case TrelanQueryHandler::Framing:
        return {NoBus, QStringLiteral("no bus: what %1 answers is not what a bus says").arg(place)};
    case TrelanQueryHandler::NotOpen:
    case TrelanQueryHandler::None:
        break;
    }
    if (!connected)
        return noBus(arguments, arguments.queryPort);
    return {NoBus, QStringLiteral("the bus at %1 went away before it answered").arg(place)};
}

Outcome refusal(const Arguments &arguments, const bus::TrelanError &error)
{
    QString text = QStringLiteral("refused by the bus: %1 %2")
                       .arg(error.error())
                       .arg(terminal::escaped(error.description()));
    // The message channel takes a handshake and nothing else.
    if (error.error() == bus::TrelanError::UnsupportedRequest)
        text += QStringLiteral("\n%1 seems to be the port of the message channel; see "
                               "--query-port and --msg-port.")
                    .arg(busPlace(arguments, arguments.queryPort));
    return {Failed, text};
}

Outcome noBus(const Arguments &arguments, quint16 port)
{
    return {NoBus, QStringLiteral("no bus at %1\nStart one with \"trelanbusd\", or say where it is "
                                  "with --host, --query-port and --msg-port.")
                       .arg(busPlace(arguments, port))};
}

Outcome silentBus(const Arguments &arguments)
{
    return {
        NoBus,
        QStringLiteral("no bus: %1 does not answer").arg(busPlace(arguments, arguments.queryPort))};
}

Outcome noClient(const QString &name)
{
    return {Failed, QStringLiteral("no client '%1' is there").arg(terminal::escaped(name))};
}

} // namespace trelanctl
