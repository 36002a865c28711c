#include "content.h"

#include <daemon.h>
#include <rawpeer.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <list>
#include <memory>
#include <thread>
#include <vector>

namespace
{

constexpr int CLIENTS = 1000;
constexpr int IDLE_MS = 10000;
constexpr int NAMES = 64;
constexpr int ROUNDS = 16; // with and without a stopped subscriber, in turns
constexpr int PASSES = 3;  // over all names in each round: 200 MB in all
constexpr int PERMANENT = 100000;
constexpr int STARTS = 5; // from the system's memory, and from the disk, in turns
constexpr double MIB = 1024.0 * 1024.0;

bool _failed = false;

void fail(benchmark::State &state, const char *why)
{
    state.SkipWithError(why);
    _failed = true;
}

/// Processor time that a process has used, in milliseconds.
double processorTime(pid_t pid)
{
    QFile file(QString("/proc/%1/stat").arg(pid));
    const QByteArray text = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) * 1000 /
           double(::sysconf(_SC_CLK_TCK));
}

double seconds(const QElapsedTimer &timer)
{
    return double(timer.nsecsElapsed()) / 1e9;
}

// --- A crowd that is idle, and comes back.

/// Seconds until all clients are registered and subscribed; negative if one is refused.
double connectAll(std::list<RawClient> &clients, const Daemon &daemon)
{
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < CLIENTS; ++i)
        clients.emplace_back(daemon.queryPort, daemon.msgPort, QString("client%1").arg(i),
                             "to.all");
    for (RawClient &client : clients) {
        if (!client.isThere())
            return -1;
    }
    return seconds(timer);
}

/// Seconds from a publish until the last of them has it; negative if one gets something else.
double publishToAll(std::list<RawClient> &clients, const Daemon &daemon, int number)
{
    RawPeer publisher(daemon.queryPort, "publisher");
    QElapsedTimer timer;
    timer.start();
    publisher.ask("pub {'nm':'to.all','cnt':{'n':" + QByteArray::number(number) + "}}");
    for (RawClient &client : clients) {
        if (client.messages.receiveObject().value("n").toInt() != number)
            return -1;
    }
    return seconds(timer);
}

void thousandClients(benchmark::State &state)
{
    Daemon daemon(TRELANBUSD);
    std::list<RawClient> clients;
    for (auto _ : state) {
        const QStringList arguments {"--max-connections", "10000"};
        bool good = daemon.start(arguments);
        const int memory = daemon.status("VmRSS");
        state.counters["connect_s"] = connectAll(clients, daemon);
        state.counters["KiB_per_client"] = double(daemon.status("VmRSS") - memory) / CLIENTS;
        const double used = processorTime(daemon.pid());
        QThread::msleep(IDLE_MS);
        state.counters["idle_cpu_percent"] = (processorTime(daemon.pid()) - used) * 100 / IDLE_MS;
        state.counters["publish_s"] = publishToAll(clients, daemon, 1);
        daemon.end(SIGKILL);
        clients.clear();
        good = daemon.start(arguments) && good;
        state.counters["back_s"] = connectAll(clients, daemon);
        state.counters["publish_again_s"] = publishToAll(clients, daemon, 2);
        for (const char *time : {"connect_s", "publish_s", "back_s", "publish_again_s"})
            good = good && state.counters[time] >= 0;
        if (!good)
            fail(state, "not all clients are there");
    }
}
BENCHMARK(thousandClients)->Iterations(1)->Unit(benchmark::kSecond);

// --- A subscriber that is stopped.

QString nameOf(int index)
{
    return QString("load.%1").arg(index);
}

QByteArray publishFrame(int index, int number)
{
    static const QVariantMap CONTENT = content::ofSize(content::LARGE - 20);
    QVariantMap content = CONTENT;
    content["a"] = number; // in front, where a subscriber finds it without reading all
    return RawPeer::frame("pub", {{"nm", nameOf(index)}, {"opt", 2}, {"cnt", content}});
}

/// Takes what comes, and knows the newest number of each name.
class Subscriber
{
public:
    Subscriber(quint16 queryPort, quint16 msgPort, const QString &name)
        : _client(queryPort, msgPort, name, "load.*")
    {
        _there = _client.isThere();
    }
    bool isThere() const { return _there; }
    /// Until every name is at this number. False if the bus ends it, or a value is older than the
    /// one before.
    bool receiveUntil(int number)
    {
        static const QByteArray NUMBER("\"a\":");
        for (int complete = int(std::count(_numbers.begin(), _numbers.end(), number));
             complete < NAMES;) {
            const QVariantMap message = _client.messages.receiveDelivery();
            _client.messages.acknowledge(message);
            const QByteArray text = message.value("msg").toString().toUtf8();
            const int front = text.indexOf(NUMBER) + NUMBER.size();
            const int found = text.mid(front, text.indexOf(',', front) - front).toInt();
            const int at = text.lastIndexOf("load.") + 5;
            int &newest = _numbers[size_t(text.mid(at, text.indexOf('"', at) - at).toInt())];
            if (found == 0 || found < newest)
                return false;
            ++received;
            complete += newest != number && found == number ? 1 : 0;
            newest = found;
        }
        return true;
    }

    std::atomic_int received {0};

private:
    RawClient _client;
    bool _there = false;
    std::array<int, NAMES> _numbers {};
};

/// The program that this is with the arguments "subscriber", the ports and a number.
int runSubscriber(const QStringList &arguments)
{
    Subscriber subscriber(arguments[2].toUShort(), arguments[3].toUShort(), "stopped");
    std::puts(subscriber.isThere() ? "subscribed" : "refused");
    std::fflush(stdout);
    return subscriber.receiveUntil(arguments[4].toInt()) ? 0 : 1;
}

/// What each round took.
struct Rounds
{
    std::vector<double> publishSeconds, secondsPerReceived, daemonSeconds;
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

class StoppedBench
{
public:
    StoppedBench()
        : _daemon(TRELANBUSD)
    {
        _ready = _daemon.start();
        _publisher = std::make_unique<RawPeer>(_daemon.queryPort, "publisher");
        _other = std::make_unique<Subscriber>(_daemon.queryPort, _daemon.msgPort, "other");
        _ready = _ready && _other->isThere();
    }

    /// Publishes some passes while another subscriber reads. False if that does not get the newest.
    bool run(Rounds &rounds)
    {
        const int first = _number + 1;
        _number += PASSES;
        std::vector<QByteArray> frames;
        for (int pass = 0; pass < PASSES; ++pass) {
            for (int index = 0; index < NAMES; ++index)
                frames.push_back(publishFrame(index, first + pass));
        }
        const int receivedBefore = _other->received;
        const double used = processorTime(_daemon.pid());
        double receiveSeconds = 0;
        bool got = false, done = true;
        QElapsedTimer timer;
        timer.start();
        std::thread other([&] {
            got = _other->receiveUntil(_number);
            receiveSeconds = seconds(timer);
        });
        for (const QByteArray &frame : frames)
            done = done && _publisher->send(frame) && _publisher->receive() == "0 ";
        rounds.publishSeconds.push_back(seconds(timer));
        other.join();
        rounds.secondsPerReceived.push_back(receiveSeconds / (_other->received - receivedBefore));
        rounds.daemonSeconds.push_back((processorTime(_daemon.pid()) - used) / 1e3);
        return _ready && done && got;
    }

    /// The same with a subscriber that is stopped meanwhile; false also if that one ends without
    /// the newest.
    bool runStopped(Rounds &rounds)
    {
        QProcess stopped;
        stopped.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        stopped.start(QCoreApplication::applicationFilePath(),
                      {"subscriber", QString::number(_daemon.queryPort),
                       QString::number(_daemon.msgPort), QString::number(_number + PASSES)});
        bool good = stopped.waitForReadyRead() && stopped.readLine() == "subscribed\n";
        ::kill(pid_t(stopped.processId()), SIGSTOP);
        const int before = _daemon.status("VmRSS");
        good = run(rounds) && good;
        const int grown = _daemon.status("VmRSS");
        ::kill(pid_t(stopped.processId()), SIGCONT);
        good = stopped.waitForFinished(60000) && stopped.exitStatus() == QProcess::NormalExit &&
               stopped.exitCode() == 0 && good;
        growth = qMax(growth, (grown - before) * 1024 / MIB);
        left = (_daemon.status("VmRSS") - before) * 1024 / MIB;
        return good;
    }

    double growth = 0; // of the daemon, MiB, at most
    double left = 0;   // of it when the last one had caught up

private:
    Daemon _daemon;
    std::unique_ptr<RawPeer> _publisher;
    std::unique_ptr<Subscriber> _other;
    int _number = 0;
    bool _ready = false;
};

void stoppedSubscriber(benchmark::State &state)
{
    for (auto _ : state) {
        StoppedBench bench;
        Rounds first, alone, disturbed;
        bool good = bench.run(first); // what the daemon needs anyway is not counted
        for (int round = 0; round < ROUNDS; ++round) {
            // In both orders: what else the machine does comes and goes.
            if (round % 2 == 0)
                good = bench.run(alone) && good;
            good = bench.runStopped(disturbed) && good;
            if (round % 2 == 1)
                good = bench.run(alone) && good;
        }
        if (!good)
            fail(state, "a subscriber did not get the newest values");
        const double megabytes = double(PASSES) * NAMES * content::LARGE / 1e6;
        state.counters["MB"] = megabytes * ROUNDS;
        state.counters["MB/s_alone"] = megabytes / median(alone.publishSeconds);
        state.counters["publisher_percent"] =
            100 * median(alone.publishSeconds) / median(disturbed.publishSeconds);
        state.counters["other_percent"] =
            100 * median(alone.secondsPerReceived) / median(disturbed.secondsPerReceived);
        state.counters["cpu_ms_alone"] = median(alone.daemonSeconds) * 1e3 / (PASSES * NAMES);
        state.counters["cpu_ms_stopped"] = median(disturbed.daemonSeconds) * 1e3 / (PASSES * NAMES);
        state.counters["growth_MiB"] = bench.growth;
        state.counters["left_MiB"] = bench.left;
    }
}
BENCHMARK(stoppedSubscriber)->Iterations(1)->Unit(benchmark::kSecond);

// --- A start with permanent objects.

QByteArray publishPermanentFrame(int index)
{
    static const QVariantMap CONTENT = content::ofSize(content::SMALL - 20);
    QVariantMap content = CONTENT;
    content["number"] = index;
    return RawPeer::frame("pub", {{"nm", nameOf(index)}, {"opt", 6}, {"cnt", content}});
}

/// Publishes all permanent objects, in an order that is not that of their names.
bool fillDisk(quint16 port)
{
    constexpr int AT_ONCE = 500;
    constexpr int STEP = 7919; // has no divisor in common with the number of objects
    RawPeer publisher(port, "publisher");
    bool done = true;
    for (int first = 0; first < PERMANENT; first += AT_ONCE) {
        QByteArray frames;
        for (int i = first; i < first + AT_ONCE; ++i)
            frames += publishPermanentFrame(int(qint64(i) * STEP % PERMANENT));
        done = done && publisher.send(frames);
        for (int i = 0; i < AT_ONCE; ++i)
            done = done && publisher.receive() == "0 ";
    }
    return done;
}

/// Leaves nothing of a file in the system's memory, so that the next reader waits for the disk.
bool forget(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadWrite) && ::fsync(file.handle()) == 0 &&
           ::posix_fadvise(file.handle(), 0, 0, POSIX_FADV_DONTNEED) == 0;
}

void startWithPermanentObjects(benchmark::State &state)
{
    for (auto _ : state) {
        const QTemporaryDir folder("bench_load-XXXXXX");
        Daemon daemon(TRELANBUSD);
        const QStringList arguments {"--data", folder.path()};
        bool good = daemon.start(arguments) && fillDisk(daemon.queryPort);
        good = daemon.end(SIGTERM) == 0 && good;
        std::vector<double> warm, cold;
        for (int round = 0; round < 2 * STARTS; ++round) {
            const bool isCold = round % 2 == 1;
            good = (!isCold || forget(folder.filePath("trelan.db"))) && good;
            QElapsedTimer timer;
            timer.start();
            good = daemon.start(arguments) && good;
            RawPeer reader(daemon.queryPort, "reader");
            good = reader.ask("loadObject {'nm':'load.99999'}") == "0 " && good;
            (isCold ? cold : warm).push_back(seconds(timer));
            state.counters["RSS_MiB"] = daemon.status("VmRSS") / 1024.0;
            good = daemon.end(SIGTERM) == 0 && good;
        }
        state.counters["start_s"] = median(warm);
        state.counters["start_cold_s"] = median(cold);
        if (!good)
            fail(state, "an object was not kept or not loaded");
    }
}
BENCHMARK(startWithPermanentObjects)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == "subscriber" && arguments.size() == 5)
        return runSubscriber(arguments);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    rlimit descriptors {};
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &descriptors);
    benchmark::RunSpecifiedBenchmarks();
    return _failed ? 1 : 0;
}
