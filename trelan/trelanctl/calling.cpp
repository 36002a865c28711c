#include "calling.h"

#include "objecttable.h"
#include "terminaltext.h"

#include <trelanerror.h>

#include <QtCore/QTimer>

namespace trelanctl
{

Calling::Calling(const Arguments &arguments, const QVariantMap &parameters)
    : _arguments(arguments)
    , _session(arguments, arguments.clientName, {}, Failed)
{
    _call.setName(arguments.name);
    _call.setReciever(arguments.client);
    _call.setSender(arguments.clientName);
    _call.setParams(parameters);
    _call.setNeedAnswer(true);
    _call.setUid(_call.genUid());
}

ExitCode Calling::run()
{
    // The call waits for both channels, or the answer would find nobody.
    QObject::connect(&_session, &Session::ready, &_session, [this] { call(); });
    QObject::connect(
        &_session, &Session::sent, &_session,
        [this](const bus::TrelanMessage &, int code, const QString &text) { judge(code, text); });
    QObject::connect(&_session, &Session::unprocessedCommand, &_session,
                     [this](const bus::TrelanCommand &answer) { take(answer); });
    QTimer::singleShot(_arguments.timeoutMs, &_session, [this] { giveUp(); });
    return _session.run();
}

void Calling::call()
{
    bus::TrelanMessage message;
    if (_called || !_call.toTrelanMessage(message))
        return;
    _called = true; // never twice: the client may have the command although the bus went away
    message.setStored(false);
    emit _session.send(message);
}

void Calling::judge(int code, const QString &text)
{
    if (code == bus::TrelanError::UnregisteredClient)
        _session.finish(noClient(_arguments.client));
    else if (code != 0)
        _session.finish({code > 0 ? Failed : NoBus, text});
}

void Calling::take(const bus::TrelanCommand &answer)
{
    if (answer.parentUid() != _call.uid() || _session.isFinished())
        return;
    const QString error = errorOf(answer);
    // An error alone is said once, except to a script.
    if (error.isNull() || _arguments.json || answer.params().size() > 1)
        _session.print(_arguments.json ? answerJson(answer) : answerText(answer));
    _session.finish(error.isNull()
                        ? Outcome()
                        : Outcome {Failed, QStringLiteral("'%1' answers with an error: %2")
                                               .arg(terminal::escaped(answer.sender()), error)});
}

void Calling::giveUp()
{
    if (!_session.wasReady())
        _session.finish(silentBus(_arguments));
    _session.finish(
        {Failed, QStringLiteral("no answer from '%1' to '%2' within %3 s")
                     .arg(terminal::escaped(_arguments.client), terminal::escaped(_arguments.name))
                     .arg(_arguments.timeoutMs / 1000.0)});
}

} // namespace trelanctl
