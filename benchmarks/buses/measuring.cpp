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

const QString ATTENDED = QStringLiteral("attended");
const QStringList IN_TURN {ATTENDED, QStringLiteral("awaited")};
const QStringList MANY {ATTENDED, QStringLiteral("pipelined"), QStringLiteral("streamed")};

double percentile(const std::vector<qint64> &sorted, int percent)
{
    return double(sorted[sorted.size() * size_t(percent) / 100]) / 1e3;
}

qint64 timeOf(clockid_t clock)
{
    timespec time {};
    return ::clock_gettime(clock, &time) == 0 ? time.tv_sec * 1000 * NS_PER_MS + time.tv_nsec : 0;
}

qint64 timeOfProcess(int process)
{
    clockid_t clock {};
    return ::clock_getcpuclockid(process, &clock) == 0 ? timeOf(clock) : 0;
}

} // namespace

Measuring::Measuring(Publisher &publisher, Arrivals &arrivals, const QList<int> &server)
    : _publisher(publisher)
    , _arrivals(arrivals)
    , _server(server)
{}

QJsonObject Measuring::run(const Order &order)
{
    prepare(order);
    Once step = once(order);
    std::vector<qint64> times;
    if (!repeat(step, order.time / 10, std::max<size_t>(2, _contents.size()), times))
        return {};
    int number = 1;
    if (MANY.contains(order.kind)) {
        std::sort(times.begin(), times.end());
        number = batch(order, times[times.size() / 2]);
        step = many(order, number);
        if (step() < 0)
            return {};
    }

    const double unmeasured = double(times.size()) + (number > 1 ? number : 0);
    times.clear();
    _acknowledged.clear();
    const Used before = used();
    if (!repeat(step, order.time, number > 1 ? BATCHES_AT_LEAST : AT_LEAST, times))
        return {};
    QJsonObject found = figures(order, times, number, before);
    found[QStringLiteral("sent")] = unmeasured + found[QStringLiteral("count")].toDouble();
    return found;
}

/// Contents are made before the clock starts.
void Measuring::prepare(const Order &order)
{
    const int wanted = IN_TURN.contains(order.kind) ? content::DIFFERENT : 1;
    if (_bytes == order.bytes && int(_contents.size()) == wanted)
        return;
    _bytes = order.bytes;
    _contents.clear();
    for (int seed = 0; seed < wanted; ++seed)
        _contents.push_back(wanted == 1 ? content::ofSize(_bytes) : content::varied(seed, _bytes));
}

const QVariantMap &Measuring::next()
{
    return _contents.size() == 1 ? _contents.front() : _contents[_turn++ % _contents.size()];
}

QJsonObject Measuring::figures(const Order &order, std::vector<qint64> &times, int number,
                               const Used &before) const
{
    const Used after = used();
    const double sum = double(std::accumulate(times.begin(), times.end(), qint64(0)));
    const double published = double(times.size()) * number;
    const bool attended = order.kind == ATTENDED;
    std::sort(times.begin(), times.end());
    std::vector<qint64> single = attended ? _acknowledged : times;
    std::sort(single.begin(), single.end());
    const int each = attended ? 1 : number;
    QJsonObject found {
        {QStringLiteral("p50_us"), percentile(single, 50) / each},
        {QStringLiteral("p99_us"), percentile(single, 99) / each},
        {QStringLiteral("share_us"), percentile(times, 50) / number},
        {QStringLiteral("per_s"), published * std::max(1, order.receivers) * 1e9 / sum},
        {QStringLiteral("cpu_us"), double(after.server - before.server) / 1e3 / published},
        {QStringLiteral("count"), published}};
    found[QStringLiteral("publisher_cpu_us")] =
        double(after.publisher - before.publisher) / 1e3 / published;
    if (order.receivers > 0)
        found[QStringLiteral("receivers_cpu_us")] =
            double(after.receivers - before.receivers) / 1e3 / published;
    return found;
}

Measuring::Once Measuring::once(const Order &order)
{
    if (order.kind == QLatin1String("called"))
        return [this] {
            const qint64 start = nanoseconds();
            return _publisher.call(next()) ? nanoseconds() - start : -1;
        };
    if (order.kind == ATTENDED)
        return many(order, 1);
    if (order.receivers > 0)
        return [this, number = order.receivers] {
            const qint64 start = nanoseconds();
            const bool done = delivered([this] { return _publisher.pass(next()); }, number);
            return done ? _arrivals.lastAt() - start : -1;
        };
    return [this] {
        const qint64 start = nanoseconds();
        return _publisher.publish(next()) ? nanoseconds() - start : -1;
    };
}

Measuring::Once Measuring::many(const Order &order, int number)
{
    const bool attended = order.kind == ATTENDED;
    if (order.receivers > 0)
        return [this, number, attended, expected = number * order.receivers] {
            const qint64 start = nanoseconds();
            const bool done = delivered(
                [this, number, attended] {
                    return attended ? attend(number) : _publisher.passAll(next(), number);
                },
                expected);
            return done ? nanoseconds() - start : -1;
        };
    return [this, number] {
        const qint64 start = nanoseconds();
        return _publisher.publishAll(next(), number) ? nanoseconds() - start : -1;
    };
}

bool Measuring::attend(int number)
{
    for (int i = 0; i < number; ++i) {
        const qint64 start = nanoseconds();
        if (!_publisher.attend(next()))
            return false;
        _acknowledged.push_back(nanoseconds() - start);
    }
    return true;
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

Measuring::Used Measuring::used() const
{
    Used sum {0, timeOf(CLOCK_PROCESS_CPUTIME_ID), timeOfProcess(_arrivals.receiver())};
    for (const int process : _server)
        sum.server += timeOfProcess(process);
    return sum;
}
