#include "content.h"

#include <trelanbus.h>
#include <trelancontroller.h>
#include <trelanmessagereciever.h>
#include <trelanmsgworker.h>
#include <trelanqueryhandler.h>
#include <trelanqueryworker.h>
#include <trelantransport.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QLoggingCategory>
#include <QtCore/QMutex>
#include <QtCore/QWaitCondition>

#include <algorithm>
#include <memory>
#include <vector>

namespace
{

const QString NAME = QStringLiteral("bench.");
constexpr int WAIT_MS = 10000;
constexpr int SUBSCRIBE_MS = 500;
constexpr int RECEIVERS = 32;

// What is measured: the described pacing, and the two codings without pauses.
constexpr int DESCRIBED = 0;
constexpr int PROMPT = 1;
constexpr int LIGHT = 2;

/// How many receivers have got which object.
class Arrivals
{
public:
    void count(const QString &name)
    {
        const QMutexLocker locker(&_mutex);
        ++_counts[name];
        _arrived.wakeAll();
    }
    bool wait(const QString &name, int number, int milliseconds = WAIT_MS)
    {
        const QDeadlineTimer deadline(milliseconds);
        const QMutexLocker locker(&_mutex);
        while (_counts.value(name) < number) {
            if (!_arrived.wait(&_mutex, deadline))
                return false;
        }
        _counts.remove(name);
        return true;
    }

private:
    QMutex _mutex;
    QWaitCondition _arrived;
    QHash<QString, int> _counts;
};

class Receiver : public bus::TrelanController
{
public:
    Receiver(int number, Arrivals &arrivals)
        : TrelanController(QStringLiteral("receiver%1").arg(number))
        , _arrivals(arrivals)
    {}

protected:
    bool doStart() override
    {
        return initWorkers(new bus::TrelanMsgWorker(clientName()),
                           new bus::TrelanQueryWorker(clientName(), {NAME + QLatin1Char('*')}));
    }
    /// In the worker's thread: the way to the application is one queued event more, and the thread
    /// that measures has no time for it.
    void prepareMsgWorker(bus::TrelanMsgWorker *worker) override
    {
        connect(worker, &bus::TrelanMsgWorker::unprocessedObject, worker,
                [this](const bus::TrelanObject &object) { _arrivals.count(object.name()); });
    }

private:
    Arrivals &_arrivals;
};

/// A bus in this process with one publisher, and receivers that have subscribed.
class Bench
{
public:
    Bench(int receivers, int usedTransport)
        : transport(usedTransport)
        , _publisher(QStringLiteral("publisher"))
    {
        using bus::TrelanTransport;
        TrelanTransport::setMode(transport == DESCRIBED ? TrelanTransport::Paced
                                                        : TrelanTransport::Prompt);
        TrelanTransport::setCoding(transport == LIGHT ? TrelanTransport::Light
                                                      : TrelanTransport::Classic);
        bus::TrelanBusSettings settings;
        settings.setQueryPort(0);
        settings.setMsgPort(0);
        ready = _server.start(settings);
        bus::TrelanQueryHandler::setQueryPort(_server.queryPort());
        for (int number = 0; number < receivers; ++number) {
            _receivers.push_back(std::make_unique<Receiver>(number, _arrivals));
            _receivers.back()->setBus(QStringLiteral("127.0.0.1"), _server.msgPort(),
                                      _server.queryPort());
        }
        ready = ready && _publisher.open() && awaitReceivers(receivers);
    }

    /// Milliseconds until it is acknowledged; negative if it is not.
    double publish(int size)
    {
        prepare(size);
        QElapsedTimer timer;
        timer.start();
        return _publisher.publish(object) ? double(timer.nsecsElapsed()) / 1e6 : -1;
    }

    /// Milliseconds from the call until the last receiver has it.
    double publishToAll(int size)
    {
        prepare(size);
        QElapsedTimer timer;
        timer.start();
        const bool done = _publisher.publish(object) && _arrivals.wait(object.name(), receivers());
        return done ? double(timer.nsecsElapsed()) / 1e6 : -1;
    }

    int receivers() const { return int(_receivers.size()); }

    const int transport;
    bool ready = false;
    bus::TrelanObject object;

private:
    /// To make a large one takes longer than to publish it.
    void prepare(int size)
    {
        object.setName(NAME + QString::number(++_number));
        object.setContent(content::ofSize(size));
        object.setStored(false);
        object.setUid(QString());
    }

    /// What is published before a receiver has subscribed does not reach it.
    bool awaitReceivers(int number)
    {
        QMap<QString, bus::TrelanObject> none;
        for (int attempt = 0; attempt < 100 && number > 0; ++attempt) {
            if (publish(content::SMALL) < 0)
                return false;
            if (_arrivals.wait(object.name(), number, SUBSCRIBE_MS))
                return true;
        }
        return number == 0;
    }

    bus::TrelanBus _server;
    bus::TrelanQueryHandler _publisher;
    Arrivals _arrivals;
    std::vector<std::unique_ptr<Receiver>> _receivers;
    int _number = 0;
};

/// Kept for the next size: starting and stopping 32 receivers takes longer than measuring.
std::unique_ptr<Bench> _bench;

using Measure = double (*)(Bench &, int);

void run(benchmark::State &state, int receivers, Measure measure)
{
    const int transport = int(state.range(1));
    if (!_bench || _bench->receivers() != receivers || _bench->transport != transport) {
        _bench.reset();
        _bench = std::make_unique<Bench>(receivers, transport);
    }
    Bench &bench = *_bench;
    std::vector<double> times;
    for (auto _ : state) {
        const double time = bench.ready ? measure(bench, int(state.range(0))) : -1;
        if (time < 0) {
            state.SkipWithError("the bus did not do it");
            break;
        }
        state.SetIterationTime(time / 1e3);
        times.push_back(time);
    }
    if (times.empty())
        return;
    std::sort(times.begin(), times.end());
    state.counters["p50_ms"] = times[times.size() / 2];
    state.counters["p99_ms"] = times[times.size() * 99 / 100];
}

void publishAcknowledged(benchmark::State &state)
{
    run(state, 0, [](Bench &bench, int size) { return bench.publish(size); });
}

void publishDelivered(benchmark::State &state)
{
    run(state, 1, [](Bench &bench, int size) { return bench.publishToAll(size); });
}

/// Until the last of them has it.
void fanOut(benchmark::State &state)
{
    run(state, RECEIVERS, [](Bench &bench, int size) { return bench.publishToAll(size); });
}

/// What a pause takes is measured soon; without any it is worth to look more often.
void addAll(const char *name, void (*measure)(benchmark::State &), int iterations)
{
    for (const int transport : {DESCRIBED, PROMPT, LIGHT}) {
        auto *added = benchmark::RegisterBenchmark(name, measure);
        added->ArgNames({"bytes", "transport"});
        for (const int size : {content::SMALL, content::MEDIUM, content::LARGE})
            added->Args({size, transport});
        added->Iterations(transport == DESCRIBED ? iterations : 10 * iterations)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    addAll("publishAcknowledged", publishAcknowledged, 300);
    addAll("publishDelivered", publishDelivered, 60);
    addAll("fanOut", fanOut, 30);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    QLoggingCategory::setFilterRules(QStringLiteral("trelan.bus.info=false"));
    benchmark::RunSpecifiedBenchmarks();
    _bench.reset(); // while there is an application
    return 0;
}
