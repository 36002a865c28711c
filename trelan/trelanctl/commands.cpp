#include "commands.h"

#include "contentparser.h"
#include "framedump.h"
#include "objecttable.h"
#include "terminaltext.h"

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QHostInfo>

namespace trelanctl
{

namespace
{

// Far above what a bus takes in one frame; it only keeps a wrong pipe from filling the memory.
const qint64 INPUT_LIMIT = 64 * 1024 * 1024;

ExitCode usage(const QString &text)
{
    Output::error(text);
    return Usage;
}

} // namespace

Commands::Commands(const Arguments &arguments)
    : _arguments(arguments)
{}

ExitCode Commands::run()
{
    ExitCode code = Done;
    switch (_arguments.command) {
    case Arguments::Publish:
        code = publish();
        break;
    case Arguments::Get:
        code = get();
        break;
    case Arguments::List:
        code = list();
        break;
    case Arguments::Remove:
        code = remove();
        break;
    case Arguments::Match:
        code = match();
        break;
    case Arguments::Frame:
        code = frame();
        break;
    }
    return code == Done && _output.failed() ? Failed : code;
}

ExitCode Commands::publish()
{
    bus::TrelanObject object;
    QVariantMap content;
    if (!readContent(content))
        return Usage;
    object.setName(_arguments.name);
    object.setContent(content);
    object.setStored(!_arguments.notStored);
    if (_arguments.permanent)
        object.setPermanent(true);
    object.setLogged(_arguments.logged);

    bus::TrelanQueryHandler handler(_arguments.clientName);
    const ExitCode code = connectTo(handler);
    if (code != Done)
        return code;
    return handler.publish(object) ? Done : failed(handler, true);
}

ExitCode Commands::get()
{
    bus::TrelanQueryHandler handler(_arguments.clientName);
    const ExitCode code = connectTo(handler);
    if (code != Done)
        return code;
    bus::TrelanObject object;
    if (!handler.loadObject(_arguments.name, object))
        return failed(handler, true);
    if (_arguments.json)
        _output.line(objectJson(object));
    else
        _output.lines(objectTable({object}, 0)); // who asks for one object wants all of it
    return Done;
}

ExitCode Commands::list()
{
    bus::TrelanQueryHandler handler(_arguments.clientName);
    const ExitCode code = connectTo(handler);
    if (code != Done)
        return code;
    QMap<QString, bus::TrelanObject> objects;
    if (!handler.loadObjects(_arguments.wildCard, objects))
        return failed(handler, true);
    if (!_arguments.json) {
        _output.lines(objectTable(objects.values(), Output::terminalWidth()));
        return Done;
    }
    for (const bus::TrelanObject &object : std::as_const(objects))
        _output.line(objectJson(object));
    return Done;
}

ExitCode Commands::remove()
{
    bus::TrelanQueryHandler handler(_arguments.clientName);
    const ExitCode code = connectTo(handler);
    if (code != Done)
        return code;
    return handler.rmPersistent(_arguments.names) ? Done : failed(handler, true);
}

ExitCode Commands::match()
{
    const bool matches = bus::TrelanObject::testWildCard(_arguments.name, _arguments.wildCard);
    if (_arguments.json)
        _output.line(QStringLiteral("{\"match\":%1}")
                         .arg(matches ? QStringLiteral("true") : QStringLiteral("false")));
    else
        _output.line(matches ? QStringLiteral("match") : QStringLiteral("no match"));
    return matches ? Done : Failed;
}

ExitCode Commands::frame()
{
    QByteArray bytes;
    QString errorText;
    if (!readStandardInput(INPUT_LIMIT, bytes, errorText)) {
        Output::error(errorText);
        return Failed;
    }
    const FrameDump dump = dumpFrames(bytes, _arguments.json);
    _output.lines(dump.lines);
    for (const QString &error : dump.errors)
        Output::error(error);
    return dump.errors.isEmpty() ? Done : Failed;
}

/// On a fault says what it is and returns false.
bool Commands::readContent(QVariantMap &content)
{
    ParsedContent parsed;
    if (_arguments.content == QStringList(QStringLiteral("-"))) {
        QByteArray json;
        if (readStandardInput(INPUT_LIMIT, json, parsed.errorText))
            parsed = parseJsonContent(json);
    } else {
        parsed = parseContent(_arguments.content);
    }
    content = parsed.content;
    if (!parsed.isValid())
        usage(QStringLiteral("the content: %1").arg(parsed.errorText));
    return parsed.isValid();
}

/// The client library wants an IPv4 address.
bool Commands::findHost()
{
    QHostAddress address(_arguments.host);
    if (address.isNull()) {
        const QHostInfo info = QHostInfo::fromName(_arguments.host);
        const QList<QHostAddress> addresses = info.addresses();
        for (const QHostAddress &candidate : addresses) {
            if (address.isNull() && candidate.protocol() == QAbstractSocket::IPv4Protocol)
                address = candidate;
        }
        if (address.isNull()) {
            Output::error(QStringLiteral("no bus: the host '%1' has no IPv4 address: %2")
                              .arg(terminal::escaped(_arguments.host), info.errorString()));
            return false;
        }
    }
    bus::TrelanQueryHandler::setQueryHost(address.toIPv4Address());
    return true;
}

ExitCode Commands::connectTo(bus::TrelanQueryHandler &handler)
{
    const QHostAddress address(_arguments.host);
    if (_arguments.host.isEmpty() || address.protocol() == QAbstractSocket::IPv6Protocol) {
        return usage(QStringLiteral("--host: an IPv4 address or a host name is expected, not '%1'")
                         .arg(terminal::escaped(_arguments.host)));
    }
    if (!findHost())
        return NoBus;
    bus::TrelanQueryHandler::setQueryPort(_arguments.queryPort);
    return handler.open() ? Done : failed(handler, false);
}

/// Tells why the last operation failed. \a connected: whether there had been a bus before.
ExitCode Commands::failed(const bus::TrelanQueryHandler &handler, bool connected) const
{
    using bus::TrelanQueryHandler;
    const QString place =
        QStringLiteral("%1:%2").arg(terminal::escaped(_arguments.host)).arg(_arguments.queryPort);
    const QString hint = QStringLiteral(
        "\nStart one with \"trelanbusd\", or say where it is with --host and --query-port.");
    switch (handler.lastFailure()) {
    case TrelanQueryHandler::Refused:
        Output::error(QStringLiteral("refused by the bus: %1 %2")
                          .arg(handler.lastError().error())
                          .arg(terminal::escaped(handler.lastError().description())));
        return Failed;
    case TrelanQueryHandler::Timeout:
        Output::error(QStringLiteral("no bus: %1 does not answer").arg(place));
        return NoBus;
    case TrelanQueryHandler::Framing:
        Output::error(QStringLiteral("no bus: what %1 answers is not what a bus says").arg(place));
        return NoBus;
    case TrelanQueryHandler::NotOpen:
    case TrelanQueryHandler::None:
        break;
    }
    if (connected)
        Output::error(QStringLiteral("the bus at %1 went away before it answered").arg(place));
    else
        Output::error(QStringLiteral("no bus at %1").arg(place) + hint);
    return NoBus;
}

} // namespace trelanctl
