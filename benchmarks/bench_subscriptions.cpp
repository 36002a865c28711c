#include "rules/subscriptionindex.h"

#include <QtCore/QStringList>

#include <benchmark/benchmark.h>

#include <vector>

using bus::SubscriptionIndex;

namespace
{

constexpr int SUBSCRIPTIONS = 100000;
constexpr int CLIENTS = 1000;

enum Shape { Literal, TrailingStar, Plus, AnyPlace };

QString wildcard(int shape, int i)
{
    switch (shape) {
    case Literal:
        return QStringLiteral("plant.hall-%1.sensor-%2").arg(i % 100).arg(i);
    case TrailingStar:
        return QStringLiteral("plant.unit-%1.*").arg(i);
    case Plus:
        return QStringLiteral("+.unit-%1.+").arg(i);
    default:
        return QStringLiteral("*.unit-%1.*").arg(i);
    }
}

QString name(int i)
{
    return QStringLiteral("plant.unit-%1.temperature").arg(i);
}

void fill(SubscriptionIndex &index, int shape)
{
    for (int i = 0; i < SUBSCRIPTIONS; ++i)
        index.add(QStringLiteral("client-%1").arg(i % CLIENTS), wildcard(shape, i));
}

/// One client subscribes and unsubscribes between any two publishes.
void change(SubscriptionIndex &index, int i)
{
    const QString text = QStringLiteral("plant.+.loop-%1").arg(i);
    index.add(QStringLiteral("restless"), text);
    index.remove(QStringLiteral("restless"), text);
}

/// The receivers of a name that was asked for before.
void remembered(benchmark::State &state)
{
    SubscriptionIndex index;
    fill(index, int(state.range(0)));
    const QString asked = name(17);
    int i = 0;
    for (auto _ : state) {
        if (state.range(1) != 0) {
            state.PauseTiming();
            change(index, ++i);
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(index.receivers(asked));
    }
}

/// Of a name that nobody asked for so far.
void neverSeen(benchmark::State &state)
{
    SubscriptionIndex index;
    fill(index, int(state.range(0)));
    int i = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const QString asked = name(++i);
        if (state.range(1) != 0)
            change(index, i);
        state.ResumeTiming();
        benchmark::DoNotOptimize(index.receivers(asked));
    }
}

void subscribeAndUnsubscribe(benchmark::State &state)
{
    SubscriptionIndex index;
    fill(index, TrailingStar);
    int i = 0;
    for (auto _ : state)
        change(index, ++i);
}

void shapes(benchmark::internal::Benchmark *benchmark)
{
    benchmark->ArgNames({"shape", "restless"});
    benchmark->ArgsProduct({{Literal, TrailingStar, Plus, AnyPlace}, {0, 1}});
}

BENCHMARK(remembered)->Apply(shapes);
BENCHMARK(neverSeen)->Apply(shapes)->Iterations(2000);
BENCHMARK(subscribeAndUnsubscribe);

} // namespace

BENCHMARK_MAIN();
