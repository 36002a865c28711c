#include "serving.h"

#include "programrun.h"
#include "terminaltext.h"

namespace trelanctl
{

namespace
{

const int MAX_RUNS = 4;
const int MAX_WAITING = 64;

} // namespace

Serving::Serving(const Arguments &arguments)
    : _arguments(arguments)
    , _session(arguments, arguments.clientName,
               {bus::TrelanCommand::createObjectName(arguments.name)}, Done)
{}

Serving::~Serving()
{
    qDeleteAll(_runs);
}

ExitCode Serving::run()
{
    const QString fault = ProgramRun::faultOf(_arguments.program);
    if (!fault.isEmpty()) {
        Output::error(QStringLiteral("--exec: ") + fault);
        return Usage;
    }
    QObject::connect(&_session, &Session::unprocessedCommand, &_session,
                     [this](const bus::TrelanCommand &call) { take(call); });
    QObject::connect(&_session, &Session::ready, &_session, [this] {
        Output::error(
            QStringLiteral("serving '%1' as the client '%2'")
                .arg(terminal::escaped(_arguments.name), terminal::escaped(_arguments.clientName)));
        sendAnswers();
    });
    QObject::connect(&_session, &Session::sent, &_session,
                     [](const bus::TrelanMessage &message, int code, const QString &text) {
                         if (code != 0)
                             Output::error(QStringLiteral("the answer to '%1' is lost: %2")
                                               .arg(terminal::escaped(message.reciever()), text));
                     });
    return _session.run();
}

void Serving::take(const bus::TrelanCommand &call)
{
    // An answer is a command too: two servers would answer each other for ever.
    if (_session.isFinished() || !call.parentUid().isEmpty())
        return;
    if (call.name() != _arguments.name) {
        answer(call, ProgramRun::errorAnswer(
                         QStringLiteral("this client serves '%1' only").arg(_arguments.name)));
    } else if (_waiting.size() >= MAX_WAITING) {
        Output::error(QStringLiteral("a command of '%1' is refused: %2 are waiting")
                          .arg(terminal::escaped(call.sender()))
                          .arg(_waiting.size()));
        answer(call, ProgramRun::errorAnswer(QStringLiteral("too many commands are waiting")));
    } else {
        _waiting.enqueue(call);
        startNext();
    }
}

void Serving::startNext()
{
    if (_waiting.isEmpty() || _runs.size() >= MAX_RUNS)
        return;
    const bus::TrelanCommand call = _waiting.dequeue();
    auto *run = new ProgramRun(_arguments.program, _arguments.programArguments);
    _runs.append(run);
    // Queued: a program that cannot be started says so before run() has returned.
    QObject::connect(
        run, &ProgramRun::answered, &_session,
        [this, run, call](const QVariantMap &parameters) { finished(run, call, parameters); },
        Qt::QueuedConnection);
    run->run(call.params(), _arguments.timeoutMs);
}

void Serving::finished(ProgramRun *run, const bus::TrelanCommand &call,
                       const QVariantMap &parameters)
{
    _runs.removeOne(run);
    run->deleteLater();
    const QString error = parameters.value(QStringLiteral("error")).toString();
    if (!error.isEmpty())
        Output::error(QStringLiteral("command of '%1': %2")
                          .arg(terminal::escaped(call.sender()), terminal::escaped(error)));
    answer(call, parameters);
    startNext();
}

void Serving::answer(const bus::TrelanCommand &call, const QVariantMap &parameters)
{
    if (!call.needAnswer() || call.sender().isEmpty())
        return;
    bus::TrelanCommand answer;
    answer.setName(call.name());
    answer.setReciever(call.sender());
    answer.setParentUid(call.uid());
    answer.setParams(parameters);
    bus::TrelanMessage message;
    answer.toTrelanMessage(message);
    _answers.enqueue(message);
    if (_answers.size() > MAX_WAITING) {
        Output::error(QStringLiteral("the answer to '%1' is lost: too many wait for the bus")
                          .arg(terminal::escaped(_answers.head().reciever())));
        _answers.dequeue();
    }
    sendAnswers();
}

void Serving::sendAnswers()
{
    while (_session.isReady() && !_answers.isEmpty())
        emit _session.send(_answers.dequeue());
}

} // namespace trelanctl
