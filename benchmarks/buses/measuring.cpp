#include "measuring.h"

#include "arrivals.h"
#include "bus.h"

#include <content.h>

#include <algorithm>
#include <ctime>
#include <numeric>

namespace
{

constexpr int PATIENCE_MS = 10000;
constexpr size_t AT_LEAST = 5;
constexpr size_t BATCHES_AT_LEAST = 2;
constexpr int MAX_BATCH = 256;
constexpr int MAX_BATCH_BYTES = 1024 * 1024; // what a bus may have to buffer for each receiver
constexpr qint64 NS_PER_MS = 1000000;

double percentile(const std::vector<qint64> &sorted, int percent)
{
    return double(sorted[sorted.size() * size_t(percent) / 100]) / 1e3;
}

} // namespace

Measuring::Measuring(Publisher &publisher, Arrivals &arrivals, const QList<int> &server)
    : _publisher(publisher)
    , _arrivals(arrivals)
    , _server(server)
{}

QJsonObject Measuring::run(const Order &order)
{
    if (_bytes != order.bytes) {
        _bytes = order.bytes;
        _content = content::ofSize(_bytes);
    }
    Once step = once(order);
    std::vector<qint64> times;
    if (!repeat(step, order.time / 10, 2, times))
        return {};
    int number = 1;
    if (order.kind == QLatin1String("pipelined") || order.kind == QLatin1String("streamed")) {
        std::sort(times.begin(), times.end());
        number = batch(order, times[times.size() / 2]);
        step = many(order, number);
        if (step() < 0)
            return {};
    }

    times.clear();
    const qint64 before = serverTime();
    if (!repeat(step, order.time, number > 1 ? BATCHES_AT_LEAST : AT_LEAST, times))
        return {};
    const qint64 used = serverTime() - before;
    std::sort(times.begin(), times.end());
    const double sum = double(std::accumulate(times.begin(), times.end(), qint64(0)));
    const double published = double(times.size()) * number;
    return {{QStringLiteral("p50_us"), percentile(times, 50) / number},
            {QStringLiteral("p99_us"), percentile(times, 99) / number},
            {QStringLiteral("per_s"), published * std::max(1, order.receivers) * 1e9 / sum},
            {QStringLiteral("cpu_us"), double(used) / 1e3 / published},
            {QStringLiteral("count"), published}};
}

Measuring::Once Measuring::once(const Order &order)
{
    if (order.kind == QLatin1String("called"))
        return [this] {
            const qint64 start = nanoseconds();
            return _publisher.call(_content) ? nanoseconds() - start : -1;
        };
    if (order.receivers > 0)
        return [this, number = order.receivers] {
            const qint64 start = nanoseconds();
            const bool done = delivered([this] { return _publisher.pass(_content); }, number);
            return done ? _arrivals.lastAt() - start : -1;
        };
    return [this] {
        const qint64 start = nanoseconds();
        return _publisher.publish(_content) ? nanoseconds() - start : -1;
    };
}

Measuring::Once Measuring::many(const Order &order, int number)
{
    if (order.receivers > 0)
        return [this, number, expected = number * order.receivers] {
            const qint64 start = nanoseconds();
            const bool done = delivered(
                [this, number] { return _publisher.passAll(_content, number); }, expected);
            return done ? nanoseconds() - start : -1;
        };
    return [this, number] {
        const qint64 start = nanoseconds();
        return _publisher.publishAll(_content, number) ? nanoseconds() - start : -1;
    };
}

bool Measuring::delivered(const std::function<bool()> &publish, int number)
{
    _arrivals.expect(number, _bytes);
    return publish() && _arrivals.await(PATIENCE_MS);
}

/// A slow bus gets fewer at once, so that all take about the same time.
int Measuring::batch(const Order &order, qint64 one) const
{
    const int fitting = int(std::min<qint64>(order.time * NS_PER_MS / std::max<qint64>(one, 1),
                                             MAX_BATCH_BYTES / _bytes));
    return std::clamp(fitting, 4, MAX_BATCH);
}

bool Measuring::repeat(const Once &step, int milliseconds, size_t atLeast,
                       std::vector<qint64> &times)
{
    const qint64 end = nanoseconds() + milliseconds * NS_PER_MS;
    while (times.size() < atLeast || nanoseconds() < end) {
        const qint64 time = step();
        if (time < 0)
            return false;
        times.push_back(time);
    }
    return true;
}

qint64 Measuring::serverTime() const
{
    qint64 sum = 0;
    for (const int process : _server) {
        clockid_t clock {};
        timespec time {};
        if (::clock_getcpuclockid(process, &clock) == 0 && ::clock_gettime(clock, &time) == 0)
            sum += time.tv_sec * 1000 * NS_PER_MS + time.tv_nsec;
    }
    return sum;
}
