#include "commands.h"

#include "benchrunner.h"
#include "busaccess.h"
#include "calling.h"
#include "contentparser.h"
#include "framedump.h"
#include "logging.h"
#include "objecttable.h"
#include "serving.h"
#include "terminaltext.h"
#include "watching.h"
#include "wildcardadvice.h"

#include <trelanerror.h>

namespace trelanctl
{

namespace
{

// Keeps a wrong pipe from filling the memory; it is far above what a bus takes in one frame.
const qint64 INPUT_LIMIT = 64 * 1024 * 1024;

/// Warns of wildcards that will not take in what they seem to.
void adviseOn(const QStringList &wildcards)
{
    for (const QString &wildcard : wildcards) {
        const QString advice = wildcardAdvice(wildcard);
        if (!advice.isEmpty())
            Output::error(QStringLiteral("warning: ") + terminal::escaped(advice));
    }
}

ExitCode told(const Outcome &outcome)
{
    if (!outcome.text.isEmpty())
        Output::error(outcome.text);
    return outcome.code;
}

} // namespace

Commands::Commands(const Arguments &arguments)
    : _arguments(arguments)
{}

ExitCode Commands::run()
{
    const ExitCode code = runCommand();
    return code == Done && _output.failed() ? Failed : code;
}

ExitCode Commands::runCommand()
{
    switch (_arguments.command) {
    case Arguments::Publish:
        return publish();
    case Arguments::Get:
        return get();
    case Arguments::List:
        adviseOn({_arguments.wildCard});
        return list();
    case Arguments::Remove:
        return remove();
    case Arguments::Watch:
    case Arguments::Wait:
        adviseOn(_arguments.names);
        return Watching(_arguments).run();
    case Arguments::Send:
        return send();
    case Arguments::Call:
        return call();
    case Arguments::Serve:
        return Serving(_arguments).run();
    case Arguments::Logs:
        return showLogs(_arguments);
    case Arguments::Clients:
        return clients();
    case Arguments::WhoAmI:
        return whoAmI();
    case Arguments::Bench:
        return BenchRunner(_arguments).run();
    case Arguments::Match:
        return match();
    case Arguments::Frame:
        return frame();
    }
    return Usage;
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
    const ExitCode code = told(connectTo(handler, _arguments));
    if (code != Done)
        return code;
    return handler.publish(object) ? Done : failed(handler);
}

ExitCode Commands::get()
{
    bus::TrelanQueryHandler handler(_arguments.clientName);
    const ExitCode code = told(connectTo(handler, _arguments));
    if (code != Done)
        return code;
    bus::TrelanObject object;
    if (!handler.loadObject(_arguments.name, object))
        return failed(handler);
    if (_arguments.json)
        _output.line(objectJson(object));
    else
        _output.lines(objectTable({object}, 0)); // a single object is shown in full
    return Done;
}

ExitCode Commands::list()
{
    bus::TrelanQueryHandler handler(_arguments.clientName);
    const ExitCode code = told(connectTo(handler, _arguments));
    if (code != Done)
        return code;
    QMap<QString, bus::TrelanObject> objects;
    if (!handler.loadObjects(_arguments.wildCard, objects))
        return failed(handler);
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
    const ExitCode code = told(connectTo(handler, _arguments));
    if (code != Done)
        return code;
    return handler.rmPersistent(_arguments.names) ? Done : failed(handler);
}

ExitCode Commands::send()
{
    bus::TrelanMessage message;
    message.setReciever(_arguments.client);
    message.setMessage(_arguments.text);
    message.setStored(_arguments.stored);
    bus::TrelanQueryHandler handler(_arguments.clientName);
    const ExitCode code = told(connectTo(handler, _arguments));
    if (code != Done)
        return code;
    if (handler.sendMessage(message))
        return Done;
    if (handler.lastError().error() == bus::TrelanError::UnregisteredClient)
        return told(noClient(_arguments.client));
    return failed(handler);
}

ExitCode Commands::call()
{
    QVariantMap parameters;
    return readContent(parameters) ? Calling(_arguments, parameters).run() : Usage;
}

ExitCode Commands::clients()
{
    QVariantList clients;
    const ExitCode code = askForClients(clients);
    if (code != Done)
        return code;
    if (!_arguments.json)
        _output.lines(clientTable(clients, Output::terminalWidth()));
    else
        for (const QVariant &client : clients)
            _output.line(clientJson(client));
    return Done;
}

ExitCode Commands::whoAmI()
{
    QVariantList clients;
    const ExitCode code = askForClients(clients);
    for (const QVariant &client : std::as_const(clients)) {
        if (client.toMap().value(QStringLiteral("name")) != _arguments.clientName)
            continue;
        if (_arguments.json)
            _output.line(clientJson(client));
        else
            _output.lines(clientLines(client.toMap()));
    }
    return code;
}

ExitCode Commands::askForClients(QVariantList &clients)
{
    bus::TrelanQueryHandler handler(_arguments.clientName);
    const ExitCode code = told(connectTo(handler, _arguments));
    if (code != Done)
        return code;
    QVariantMap answer;
    if (!handler.request(answer, QStringLiteral("clients"), {}))
        return failed(handler);
    clients = answer.value(QStringLiteral("clients")).toList();
    return Done;
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

/// Returns false on a fault, which it has told by then.
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
        Output::error(QStringLiteral("the content: %1").arg(parsed.errorText));
    return parsed.isValid();
}

ExitCode Commands::failed(const bus::TrelanQueryHandler &handler) const
{
    return told(failureOf(handler, _arguments, true));
}

} // namespace trelanctl
