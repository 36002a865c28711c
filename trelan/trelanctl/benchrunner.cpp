#include "benchrunner.h"

#include "benchpeer.h"
#include "endsignals.h"

#include <trelanmessagereciever.h>
#include <trelanobject.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QUuid>

#include <array>

namespace trelanctl
{

namespace
{

constexpr std::array<int, 3> SIZES = {100, 4 * 1024, 64 * 1024};
constexpr std::array<size_t, 3> RECEIVERS = {0, 1, 4};

QString whatText(size_t receivers)
{
    switch (receivers) {
    case 0:
        return QStringLiteral("publish to acknowledged");
    case 1:
        return QStringLiteral("publish to delivered");
    default:
        return QStringLiteral("publish to the last of %1").arg(receivers);
    }
}

} // namespace

BenchRunner::BenchRunner(const Arguments &arguments)
    : _arguments(arguments)
    , _name(QStringLiteral("trelanctl-bench-") + QUuid::createUuid().toString(QUuid::WithoutBraces))
{}

BenchRunner::~BenchRunner() = default;

ExitCode BenchRunner::run()
{
    EndSignals::install();
    _outcome = locateBus(_arguments);
    if (_outcome.code == Done) {
        _publisher = std::make_unique<BenchPeer>(_arguments, _arguments.queryPort, _name);
        _outcome = _publisher->fault();
    }
    const QList<BenchFigures> all = measureAll();
    Output::progress(QString());
    if (_arguments.json) {
        for (const BenchFigures &figures : all)
            _output.line(benchJson(figures));
    } else if (!all.isEmpty()) {
        _output.lines(benchTable(all));
    }
    if (!_outcome.text.isEmpty())
        Output::error(_outcome.text);
    return _outcome.code;
}

/// Returns what was measured before a fault.
QList<BenchFigures> BenchRunner::measureAll()
{
    QList<BenchFigures> all;
    for (const size_t receivers : RECEIVERS) {
        while (_outcome.code == Done && _receivers.size() < receivers && addReceiver()) {}
        for (const int size : SIZES) {
            BenchFigures figures {whatText(receivers), size, {}};
            if (_outcome.code == Done && measure(figures))
                all.append(figures);
        }
    }
    return all;
}

bool BenchRunner::addReceiver()
{
    const QString name = QStringLiteral("%1-%2").arg(_name).arg(_receivers.size());
    Receiver receiver {std::make_unique<BenchPeer>(_arguments, _arguments.queryPort, name),
                       std::make_unique<BenchPeer>(_arguments, _arguments.messagePort, name)};
    const QByteArray subscription =
        BenchPeer::requestFrame(QStringLiteral("sub"), {{QStringLiteral("wc"), _name}});
    if (!receiver.query->request(subscription))
        return fail(*receiver.query);
    if (receiver.messages->fault().code != Done)
        return fail(*receiver.messages);
    _receivers.push_back(std::move(receiver));
    return true;
}

/// Repeats one measurement for its share of the time, and at least once.
bool BenchRunner::measure(BenchFigures &figures)
{
    bus::TrelanObject object;
    object.setName(_name);
    object.setContent(benchContent(figures.bytes));
    object.setStored(false);
    const QByteArray frame = BenchPeer::requestFrame(QStringLiteral("pub"), object.toVariantMap());
    const qint64 share =
        qint64(_arguments.seconds * 1000) / qint64(SIZES.size() * RECEIVERS.size());
    Output::progress(QStringLiteral("%1, %2 bytes ...").arg(figures.what).arg(figures.bytes));
    qint64 nanoseconds = 0;
    if (!publishOnce(frame, nanoseconds)) // not counted, since it finds everything cold
        return false;
    QElapsedTimer timer;
    timer.start();
    do {
        if (!publishOnce(frame, nanoseconds))
            return false;
        figures.nanoseconds.push_back(nanoseconds);
        if (EndSignals::arrived())
            _outcome = {Failed, QStringLiteral("interrupted")};
    } while (timer.elapsed() < share && _outcome.code == Done);
    return _outcome.code == Done;
}

bool BenchRunner::publishOnce(const QByteArray &frame, qint64 &nanoseconds)
{
    QElapsedTimer timer;
    timer.start();
    if (!_publisher->request(frame))
        return fail(*_publisher);
    for (const Receiver &receiver : _receivers) {
        if (!receiver.messages->awaitDelivery())
            return fail(*receiver.messages);
    }
    nanoseconds = timer.nsecsElapsed();
    for (const Receiver &receiver : _receivers) {
        if (!receiver.messages->acknowledge())
            return fail(*receiver.messages);
    }
    return true;
}

bool BenchRunner::fail(const BenchPeer &peer)
{
    _outcome = peer.fault();
    return false;
}

} // namespace trelanctl
