#include "session.h"

#include "channellinks.h"
#include "endsignals.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>

#include <unistd.h>
#include <utility>

namespace trelanctl
{

namespace
{

// The two channels may be lost one after the other, and only the loss of both shows that the bus is
// away.
const int LOSS_JUDGEMENT_MS = 600;

} // namespace

Session::Session(const Arguments &arguments, const QString &clientName, QStringList wildCards,
                 ExitCode endCode)
    : TrelanController(clientName)
    , _arguments(arguments)
    , _wildCards(std::move(wildCards))
    , _endCode(endCode)
{}

Session::~Session()
{
    stop();
}

ExitCode Session::run()
{
    const Outcome located = locateBus(_arguments);
    if (located.code == Done) {
        watchEnds();
        setBus(QHostAddress(bus::TrelanQueryHandler::queryHost()).toString(),
               _arguments.messagePort, _arguments.queryPort);
        if (!_finished)
            QCoreApplication::exec();
        stop();
        // Prints what was acknowledged to the bus already and would be lost otherwise.
        QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    } else {
        finish(located);
    }
    if (!_outcome.text.isEmpty())
        Output::error(_outcome.text);
    return _outcome.code == Done && _output.failed() ? Failed : _outcome.code;
}

void Session::finish(const Outcome &outcome)
{
    if (_finished)
        return;
    _finished = true;
    _outcome = outcome;
    QCoreApplication::quit();
}

void Session::print(const QString &line)
{
    _output.line(line);
    if (_output.isClosed() && !EndSignals::arrived()) // after a signal the session ends anyway
        finish({Failed,
                _output.failed() ? QString() : QStringLiteral("nobody reads the output any more")});
}

bool Session::doStart()
{
    auto *query = new QueryLink(_arguments, clientName(), _wildCards);
    const auto room = std::make_shared<QSemaphore>(MessageLink::ROOM);
    MessageLink::Options options;
    // An answer that comes after the call has ended must not wait on the bus.
    options.setFlag(MessageLink::Transient, _arguments.command == Arguments::Call);
    options.setFlag(MessageLink::TakeRemovals, _arguments.command == Arguments::Watch);
    auto *messages = new MessageLink(clientName(), options, room);
    const auto release = [room] { room->release(); };
    connect(this, &Session::unprocessedMessage, this, release);
    connect(this, &Session::unprocessedCommand, this, release);
    connect(this, &Session::unprocessedObject, this, release);
    connect(this, &Session::objectRemoved, this, release);
    connect(query, &QueryLink::opened, this, [this] { setOpen(_queryOpen, true); });
    connect(query, &QueryLink::lost, this, [this] { setOpen(_queryOpen, false); });
    connect(query, &QueryLink::failed, this, [this](int code, const QString &text) {
        if (code != NoBus || !_wasReady)
            finish({ExitCode(code), text});
    });
    connect(query, &QueryLink::sent, this, &Session::sent);
    connect(this, &Session::send, query, &QueryLink::send, Qt::QueuedConnection);
    connect(messages, &MessageLink::opened, this, [this] { setOpen(_messageOpen, true); });
    connect(messages, &MessageLink::lost, this, [this] { setOpen(_messageOpen, false); });
    connect(messages, &MessageLink::unreachable, this, [this] {
        _unreachable = true;
        judgeStart();
    });
    return initWorkers(messages, query);
}

void Session::setOpen(bool &channel, bool open)
{
    const bool before = isReady();
    channel = open;
    judgeStart();
    if (before && !isReady())
        QTimer::singleShot(LOSS_JUDGEMENT_MS, this, [this] { sayAway(); });
    if (before || !isReady())
        return;
    if (std::exchange(_away, false))
        Output::error(QStringLiteral("the bus at %1 is back")
                          .arg(busPlace(_arguments, _arguments.queryPort)));
    _wasReady = true;
    emit ready();
}

void Session::sayAway()
{
    if (isReady() || _finished || _away)
        return;
    _away = true;
    Output::error(
        QStringLiteral("the bus at %1 is away").arg(busPlace(_arguments, _arguments.queryPort)));
}

/// Ends the session if only the message port has no bus. If neither port has one, the query channel
/// says so.
void Session::judgeStart()
{
    if (_unreachable && _queryOpen && !_wasReady)
        finish(noBus(_arguments, _arguments.messagePort));
}

/// Notices a reader that goes away at once, and not with the next line, which may never come.
void Session::watchEnds()
{
    EndSignals::install();
    _signal = std::make_unique<QSocketNotifier>(EndSignals::descriptor(), QSocketNotifier::Read);
    connect(_signal.get(), &QSocketNotifier::activated, this, [this] {
        _signal->setEnabled(false);
        finish({_endCode, _endCode == Done ? QString() : QStringLiteral("interrupted")});
    });
    _reader = std::make_unique<QSocketNotifier>(STDOUT_FILENO, QSocketNotifier::Exception);
    connect(_reader.get(), &QSocketNotifier::activated, this, [this] {
        _reader->setEnabled(false);
        finish({Failed, QStringLiteral("nobody reads the output any more")});
    });
}

} // namespace trelanctl
