#include <daemon.h>
#include <testsupport.h>
#include <trelanclient.h>

#include <atomic>
#include <list>
#include <memory>
#include <random>
#include <thread>

using namespace bus;

namespace
{

const bool SOAK = qEnvironmentVariableIsSet("TRELAN_SOAK");
constexpr int LONG_MS = 30000;
#ifdef __SANITIZE_THREAD__
// The daemon is not what is looked at here, and has none of what tells the sanitizer of Qt.
const bool QUIET_DAEMON = qputenv("TSAN_OPTIONS", "report_bugs=0");
#endif

QVariantMap n(int number)
{
    return {{"n", number}};
}

TrelanClientSettings settingsOf(const Daemon &bus)
{
    return TrelanClientSettings().setPorts(bus.msgPort, bus.queryPort).setMaxPause(200);
}

/// A client that publishes, watches, calls and removes, and knows what must be true of it.
class Busy : public QObject
{
public:
    Busy(int number, const TrelanClientSettings &settings)
        : own(QString("busy.%1").arg(number))
        , client(QString("busy%1").arg(number), settings)
    {
        client.serve("echo", this, [](const TrelanCommand &call) { return call.params(); });
        client.watch(
            "busy.*", this,
            [this](const TrelanObject &object) {
                const int value = object.content().value("n").toInt();
                if (value < known.value(object.name(), 0))
                    ++backwards;
                known[object.name()] = value;
            },
            [this](const QString &name) { known.remove(name); });
    }

    void act(int round)
    {
        pending << client.publish(own, n(round));
        pending << client.publish(own + ".gone", n(round));
        pending << client.remove(own + ".gone");
        pending << client.call(QString("busy%1").arg(round % 3), "echo", n(round),
                               TrelanOptions().within(2000));
    }
    bool allEnded() const
    {
        return std::all_of(pending.cbegin(), pending.cend(),
                           [](const TrelanPending &one) { return one.isFinished(); });
    }

    const QString own;
    TrelanClient client;
    QMap<QString, int> known; // value by name of the object, as the watch has it
    int backwards = 0;
    QList<TrelanPending> pending;
};

} // namespace

class tst_TrelanClientLoad : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    /// Every operation ends, every watch is whole in the end, and no value goes backwards.
    void busIsKilled()
    {
        constexpr int CLIENTS = 20;
        const int rounds = SOAK ? 100 : 6;
        Daemon bus(TRELANBUSD);
        QVERIFY(bus.start());
        std::list<Busy> clients;
        for (int i = 0; i < CLIENTS; ++i)
            clients.emplace_back(i, settingsOf(bus));
        int round = 0;
        for (int kills = 0; kills < rounds; ++kills) {
            for (Busy &busy : clients)
                QTRY_VERIFY_WITH_TIMEOUT(busy.client.state().isConnected(), LONG_MS);
            for (int i = 0; i < 5; ++i) {
                ++round;
                for (Busy &busy : clients)
                    busy.act(round);
                QCoreApplication::processEvents();
            }
            bus.end(SIGKILL);
            QVERIFY(bus.start());
        }
        ++round;
        for (Busy &busy : clients) {
            const TrelanPending last =
                busy.client.publish(busy.own, n(round), TrelanOptions().orWaitForBus());
            QTRY_VERIFY_WITH_TIMEOUT(last.isDone(), LONG_MS);
            QTRY_VERIFY_WITH_TIMEOUT(busy.allEnded(), LONG_MS);
        }
        const TrelanReply<TrelanObjects> all = clients.front().client.loadAll("busy.*");
        QVERIFY(all.wait(LONG_MS));
        QMap<QString, int> expected;
        for (const TrelanObject &object : all.result())
            expected.insert(object.name(), object.content().value("n").toInt());
        QCOMPARE(expected.size(), CLIENTS);
        for (Busy &busy : clients) {
            QTRY_COMPARE_WITH_TIMEOUT(busy.known, expected, LONG_MS);
            QCOMPARE(busy.backwards, 0);
        }
    }

    /// Clients come and go from many threads while traffic runs, with contexts deleted in the
    /// middle of calls. Nothing hangs, and nothing runs after the end of its context.
    void clientsComeAndGo()
    {
        constexpr int THREADS = 8;
        const int all = SOAK ? 1000 : 80;
        Daemon bus(TRELANBUSD);
        QVERIFY(bus.start({"--log-level", "warning"}));
        const TrelanClientSettings settings = settingsOf(bus);
        TrelanClient traffic("traffic", settings);
        std::atomic_int made {0}, late {0};
        const auto live = [&](int thread) {
            std::mt19937 random {unsigned(thread)};
            std::list<std::unique_ptr<TrelanClient>> clients;
            for (int number = made++; number < all; number = made++) {
                clients.push_back(
                    std::make_unique<TrelanClient>(QString("guest%1").arg(number), settings));
                TrelanClient &client = *clients.back();
                const auto isGone = std::make_shared<std::atomic_bool>(false);
                auto context = std::make_unique<QObject>();
                const auto note = [isGone, &late] { late += isGone->load(); };
                client.watch("traffic.*", context.get(), [note](const TrelanObject &) { note(); });
                client.serve("echo", context.get(), [note](const TrelanCommand &call) {
                    note();
                    return call.params();
                });
                client.publish("traffic.guest", n(number)).then(context.get(), note);
                client.call(QString("guest%1").arg(number / 2), "echo", n(number))
                    .onError(context.get(), [note](const TrelanFailure &) { note(); });
                for (unsigned turns = random() % 20; turns > 0; --turns)
                    QCoreApplication::processEvents();
                if (random() % 2 == 0)
                    client.waitForConnected(int(random() % 50));
                context.reset();
                *isGone = true;
                QCoreApplication::processEvents();
                const size_t most = 100 / THREADS;
                while (clients.size() > random() % most)
                    clients.pop_front();
            }
        };
        std::vector<std::unique_ptr<QThread>> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back(QThread::create(live, i));
            threads.back()->start();
        }
        const auto anyRuns = [&] {
            return std::any_of(threads.cbegin(), threads.cend(),
                               [](const auto &thread) { return thread->isRunning(); });
        };
        int sent = 0;
        while (anyRuns()) {
            traffic.publish("traffic.main", n(++sent)).wait(LONG_MS);
            QCoreApplication::processEvents();
        }
        for (const auto &thread : threads)
            QVERIFY(thread->wait(LONG_MS));
        QCOMPARE(late.load(), 0);
        QVERIFY(made >= all);
        QVERIFY(traffic.waitForConnected(LONG_MS));
    }
};

QTEST_GUILESS_MAIN(tst_TrelanClientLoad)
#include "tst_trelanclientload.moc"
