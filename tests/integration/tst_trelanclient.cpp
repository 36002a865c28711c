#include <scriptedserver.h>
#include <testsupport.h>
#include <testtable.h>
#include <trelanbus.h>
#include <trelanclient.h>
#include <trelanqueryhandler.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

using namespace bus;

namespace
{

constexpr int LONG_MS = 10000;

/// A bus that can go and come back at its ports.
class Bus
{
public:
    Bus() { start(); }

    void start()
    {
        TrelanBusSettings settings;
        settings.setQueryPort(_queryPort);
        settings.setMsgPort(_msgPort);
        if (!_bus.start(settings))
            qFatal("%s", qPrintable(_bus.errorString()));
        _queryPort = _bus.queryPort();
        _msgPort = _bus.msgPort();
    }
    void stop() { _bus.stop(); }

    TrelanClientSettings settings() const
    {
        return TrelanClientSettings().setPorts(_msgPort, _queryPort);
    }

private:
    quint16 _queryPort = 0, _msgPort = 0;
    TrelanBus _bus;
};

struct Room
{
    Q_GADGET
    Q_PROPERTY(double celsius MEMBER celsius)
public:
    double celsius = 0;
};

/// What a watch was told, in order: names of values with their "n", removed names with a minus.
class Seen : public QObject
{
public:
    QStringList told;

    TrelanWatch watch(TrelanClient &client, const QString &wildcard)
    {
        return client.watch(
            wildcard, this,
            [this](const TrelanObject &object) {
                told << object.name() + "=" + object.content().value("n").toString();
            },
            [this](const QString &name) { told << "-" + name; });
    }
    QStringList take() { return std::exchange(told, {}); }
};

QVariantMap n(int number)
{
    return {{"n", number}};
}

TrelanFailure::Kind outcome(const TrelanPending &pending)
{
    return pending.wait(LONG_MS) ? pending.failure().kind() : TrelanFailure::Kind(-1);
}

using Begin = std::function<TrelanPending(TrelanClient &)>;
using Change = std::function<void(TrelanClientSettings &, Bus &)>;

} // namespace

Q_DECLARE_METATYPE(Begin)
Q_DECLARE_METATYPE(Change)

class tst_TrelanClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void publishesLoadsAndRemoves()
    {
        Bus bus;
        TrelanClient client("a", bus.settings());
        QCOMPARE(outcome(client.publish("x.a", n(1))), TrelanFailure::None);
        client.publish("x.b", n(2));
        const auto one = client.load("x.a");
        QCOMPARE(outcome(one), TrelanFailure::None);
        QCOMPARE(one.result().content(), n(1));
        QCOMPARE(one.result().publisher(), QString("a"));
        const auto all = client.loadAll("x.*");
        QCOMPARE(outcome(all), TrelanFailure::None);
        QCOMPARE(all.result().keys(), (QStringList {"x.a", "x.b"}));
        QCOMPARE(outcome(client.remove(" x.a ")), TrelanFailure::None);
        const auto gone = client.load("x.a");
        QCOMPARE(outcome(gone), TrelanFailure::Refused);
        QCOMPARE(gone.failure().code(), quint16(TrelanError::IncorrectRequestData));
        QVERIFY2(gone.failure().toString().contains("x.a"), qPrintable(gone.failure().toString()));
        QVERIFY(client.state().isConnected());
        QCOMPARE(client.state().lacking(), QStringList());
    }

    void watchTellsValuesChangesAndRemovals()
    {
        Bus bus;
        TrelanClient writer("writer", bus.settings()), reader("reader", bus.settings());
        QCOMPARE(outcome(writer.publish("x.a", n(1))), TrelanFailure::None);
        Seen seen;
        const TrelanWatch watch = seen.watch(reader, "x.*");
        QTRY_VERIFY(watch.isDone());
        QTRY_COMPARE(seen.told, (QStringList {"x.a=1"}));
        seen.take();
        writer.publish("x.b", n(2));
        writer.publish("x.a", n(3));
        writer.remove("x.b");
        QTRY_COMPARE(seen.told, (QStringList {"x.b=2", "x.a=3", "-x.b"}));
        seen.take();
        // A second watch gets the values, and the first one nothing.
        Seen other;
        QCOMPARE(outcome(other.watch(reader, "x.+")), TrelanFailure::None);
        QTRY_COMPARE(other.told, (QStringList {"x.a=3"}));
        other.take();
        writer.publish("x.a", n(4));
        QTRY_COMPARE(other.told, (QStringList {"x.a=4"}));
        other.take();
        QTRY_COMPARE(seen.told, (QStringList {"x.a=4"}));
        seen.take();
        QCOMPARE(outcome(reader.unwatch(watch)), TrelanFailure::None);
        writer.publish("x.a", n(5));
        QTRY_COMPARE(other.told, (QStringList {"x.a=5"}));
        other.take();
        QCOMPARE(seen.take(), QStringList());
    }

    void typedValues()
    {
        Bus bus;
        TrelanClient writer("writer", bus.settings()), reader("reader", bus.settings());
        QStringList named;
        QList<double> bare;
        reader.watch("room.*", this, [&](const Room &room, const TrelanObject &object) {
            named << object.name() + "=" + QString::number(room.celsius);
        });
        reader.watch<Room>("room.*", this, [&](const Room &room) { bare << room.celsius; });
        for (int watch = 0; watch < 2; ++watch) {
            const char *misfit =
                R"(room\.b.*"celsius" is the text "warm", and a number \(double\) was expected)";
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(misfit));
        }
        QCOMPARE(outcome(writer.publish("room.a", Room {21.5})), TrelanFailure::None);
        QCOMPARE(outcome(writer.publish("room.b", {{"celsius", "warm"}})), TrelanFailure::None);
        QCOMPARE(outcome(writer.publish("room.c", Room {5})), TrelanFailure::None);
        QTRY_COMPARE(named, (QStringList {"room.a=21.5", "room.c=5"}));
        QTRY_COMPARE(bare, (QList<double> {21.5, 5}));
        const TrelanPending refused = writer.publish("room.d", Room {qInf()});
        QCOMPARE(outcome(refused), TrelanFailure::Refused);
        QVERIFY2(refused.failure().description().contains("\"celsius\" is infinite"),
                 qPrintable(refused.failure().description()));
    }

    void watchIsWholeAfterRestart()
    {
        Bus bus;
        TrelanClient writer("writer", bus.settings().setKeep(true));
        TrelanClient other("other", bus.settings());
        TrelanClient reader("reader", bus.settings());
        QCOMPARE(outcome(writer.publish("x.kept", n(1))), TrelanFailure::None);
        QCOMPARE(outcome(other.publish("x.lost", n(1))), TrelanFailure::None);
        Seen seen;
        QCOMPARE(outcome(seen.watch(reader, "x.*")), TrelanFailure::None);
        QTRY_COMPARE(seen.told.size(), 2);
        seen.take();
        bus.stop();
        QTRY_COMPARE(reader.state().status(), TrelanConnectionState::Away);
        QCOMPARE(reader.state().reason(), TrelanConnectionState::NoBus);
        QTRY_COMPARE(writer.state().status(), TrelanConnectionState::Away);
        const TrelanPending older = writer.publish("x.new", n(2));
        const TrelanPending newer = writer.publish("x.new", n(3));
        QCOMPARE(outcome(older), TrelanFailure::Replaced);
        QCOMPARE(outcome(writer.load("x.new")), TrelanFailure::NotConnected);
        const auto waits = writer.load("x.new", TrelanOptions().orWaitForBus());
        const auto late = writer.publish("x.late", n(4), TrelanOptions().within(1));
        QCOMPARE(outcome(late), TrelanFailure::TimedOut);
        bus.start();
        QCOMPARE(outcome(newer), TrelanFailure::None);
        QCOMPARE(outcome(waits), TrelanFailure::None);
        QTRY_VERIFY(reader.state().isConnected());
        QTRY_VERIFY(seen.told.contains("-x.lost"));
        QTRY_VERIFY(seen.told.contains("x.new=3"));
        QTRY_VERIFY(seen.told.contains("x.late=4"));
        QVERIFY(!seen.told.contains("x.new=2"));
        QTRY_COMPARE(outcome(other.load("x.kept", TrelanOptions().orWaitForBus())),
                     TrelanFailure::None);
    }

    /// What a publisher publishes once more, since the bus has lost it, reaches who has seen it.
    void keptValuesAreSeenAgain()
    {
        Bus bus;
        Seen seen;
        TrelanClient reader("reader", bus.settings().setMaxPause(10));
        QCOMPARE(outcome(seen.watch(reader, "x")), TrelanFailure::None);
        TrelanClient writer("writer", bus.settings());
        const TrelanObject object = [] {
            TrelanObject x;
            x.setName("x");
            x.setUid("a uid of its own");
            x.setContent(n(1));
            return x;
        }();
        QCOMPARE(outcome(writer.publish(object)), TrelanFailure::None);
        QTRY_COMPARE(seen.told, QStringList {"x=1"});
        bus.stop();
        QTRY_COMPARE(reader.state().status(), TrelanConnectionState::Away);
        QTRY_COMPARE(writer.state().status(), TrelanConnectionState::Away);
        bus.start();
        QTRY_COMPARE(seen.told, (QStringList {"x=1", "-x"}));
        writer.publish(object);
        QTRY_COMPARE(seen.told, (QStringList {"x=1", "-x", "x=1"}));
    }

    void callsAndServes()
    {
        Bus bus;
        TrelanClient caller("caller", bus.settings()), callee("callee", bus.settings());
        QObject context;
        callee.serve("double", &context, [](const TrelanCommand &call) {
            return QVariantMap {{"n", 2 * call.params().value("n").toInt()}};
        });
        std::vector<TrelanCall> open;
        callee.serve("later", &context, [&](const TrelanCall &call) { open.push_back(call); });
        callee.serve("never", &context, [](const TrelanCall &) {});
        QVERIFY(callee.waitForConnected());

        int answered = 0;
        const auto reply = caller.call("callee", "double", n(21));
        reply.then(&context, [&](const QVariantMap &answer) { answered = answer["n"].toInt(); });
        QTRY_COMPARE(answered, 42);

        // Equal calls at once: each has its own answer.
        QList<TrelanPending> equal;
        for (int i = 0; i < 100; ++i)
            equal << caller.call("callee", "double", n(1));
        for (const TrelanPending &one : equal)
            QTRY_VERIFY(one.isDone());

        const auto later = caller.call("callee", "later");
        QTRY_COMPARE(open.size(), size_t(1));
        QVERIFY(!later.isFinished());
        open[0].answer(n(1));
        open[0].fail("a second answer");
        QTRY_VERIFY(later.isDone());
        QCOMPARE(later.result(), n(1));

        const auto never = caller.call("callee", "never");
        QTRY_VERIFY(never.isFinished());
        QCOMPARE(never.failure().kind(), TrelanFailure::AnswerError);
        QCOMPARE(outcome(caller.call("callee", "unknown")), TrelanFailure::AnswerError);
        QCOMPARE(outcome(caller.call("nobody", "x")), TrelanFailure::NobodyThere);
        QCOMPARE(outcome(caller.call("callee", "later", {}, TrelanOptions().within(50))),
                 TrelanFailure::TimedOut);
    }

    void sendsMessages()
    {
        Bus bus;
        TrelanClient sender("sender", bus.settings()), receiver("receiver", bus.settings());
        QVERIFY(receiver.waitForConnected());
        QStringList texts;
        QObject context;
        connect(&receiver, &TrelanClient::messageReceived, &context,
                [&](const TrelanMessage &message) { texts << message.message(); });
        QCOMPARE(outcome(sender.send("receiver", "hello")), TrelanFailure::None);
        QTRY_COMPARE(texts, QStringList {"hello"});
        QCOMPARE(outcome(sender.send("nobody", "hello")), TrelanFailure::NobodyThere);
    }

    void namesTakenOver()
    {
        Bus bus;
        TrelanClient first("one", bus.settings());
        QVERIFY(first.waitForConnected());
        TrelanClient second("one", bus.settings());
        const auto taken = [&](const TrelanClient &client) {
            return client.state().reason() == TrelanConnectionState::NameTaken;
        };
        QTRY_VERIFY(taken(first) || taken(second));
        const QString text = (taken(first) ? first : second).state().description();
        QVERIFY2(text.contains("one") && text.contains("127.0.0.1:"), qPrintable(text));
    }

    void refusals_data()
    {
        const TestTable<Begin, QString> row("begin", "failure");
        row(
            "no name", [](TrelanClient &c) { return c.publish("", n(1)); },
            R"(refused \(2\): .*name.*)");
        row(
            "name with a wildcard", [](TrelanClient &c) { return c.publish("a.+", n(1)); },
            R"(refused \(2\): .*a\.\+.*)");
        row(
            "empty wildcard",
            [](TrelanClient &c) { return c.watch("", &c, [](const TrelanObject &) {}); },
            R"(refused \(2\): .*)");
        row(
            "call of nobody", [](TrelanClient &c) { return c.call("", "x"); },
            R"(refused \(2\): a call needs a receiver)");
        row(
            "unknown object", [](TrelanClient &c) { return c.load("x"); },
            R"(refused \(2\): there is no object "x")");
        row(
            "misfit",
            [](TrelanClient &c) {
                return c.call("other", "sum", {{"text", "no number"}});
            },
            "answered with an error: no number");
        row(
            "an answer that is no map", [](TrelanClient &c) { return c.call("other", "list"); },
            "answered with an error: the answer is no map");
        row(
            "an answer of somebody else",
            [](TrelanClient &c) {
                return c.call("other", "stolen", {}, TrelanOptions().within(200));
            },
            "timed out: .*");
        row(
            "a served function that never answers",
            [](TrelanClient &c) {
                return c.call("other", "never", {}, TrelanOptions().within(200));
            },
            "timed out: .*");
    }

    void refusals()
    {
        QFETCH(Begin, begin);
        QFETCH(QString, failure);
        Bus bus;
        TrelanClient client("client", bus.settings()), other("other", bus.settings()),
            thief("thief", bus.settings());
        QObject context;
        std::vector<TrelanCall> open;
        other.serve("sum", &context, [](const TrelanCall &call) {
            call.fail(call.command().params().value("text").toString());
        });
        other.serve("never", &context, [&](const TrelanCall &call) { open.push_back(call); });
        const auto answer = [](TrelanClient &by, const TrelanCommand &call, const QString &params) {
            TrelanMessage message;
            message.setReciever(call.sender());
            message.setMessage(
                QString(R"({"__cmd__":{"__name__":"x","__params__":%1,"__parent__":"%2"}})")
                    .arg(params, call.uid()));
            by.send(message);
        };
        connect(&other, &TrelanClient::commandReceived, &context, [&](const TrelanCommand &call) {
            if (call.name() == "list")
                answer(other, call, "[1]");
            else
                answer(thief, call, "{}");
        });
        QVERIFY(client.waitForConnected() && other.waitForConnected() && thief.waitForConnected());
        const TrelanPending pending = begin(client);
        QTRY_VERIFY(pending.isFinished());
        const QRegularExpression expected(QRegularExpression::anchoredPattern(failure));
        const QString text = pending.failure().toString();
        QVERIFY2(expected.match(text).hasMatch(), qPrintable(text));
    }

    void continuationsEndWithTheirContext()
    {
        Bus bus;
        TrelanClient client("client", bus.settings());
        QObject context;
        QStringList ran;
        auto gone = std::make_unique<QObject>();
        const TrelanPending pending = client.publish("x", n(1));
        pending.then(gone.get(), [&] { ran << "of a deleted context"; });
        pending.then(&context, [&] { ran << "before the end"; });
        pending.onError(&context, [&](const TrelanFailure &) { ran << "an error"; });
        QVERIFY(pending.wait());
        pending.then(&context, [&] { ran << "after the end"; });
        QVERIFY2(ran.isEmpty(), "a continuation has not waited for the event loop");
        gone.reset();
        const TrelanPendingWatcher watcher(pending);
        QSignalSpy finished(&watcher, &TrelanPendingWatcher::finished);
        QVERIFY(finished.wait());
        QCOMPARE(ran, (QStringList {"before the end", "after the end"}));
        QCOMPARE(finished.size(), 1);
    }

    void watchEndsWithItsContext()
    {
        Bus bus;
        TrelanClient client("client", bus.settings());
        auto seen = std::make_unique<Seen>();
        QCOMPARE(outcome(seen->watch(client, "x.*")), TrelanFailure::None);
        seen.reset();
        const auto clients = client.clients();
        QVERIFY(clients.wait(LONG_MS));
        QCOMPARE(clients.result()[0].toMap().value("subscriptions").toInt(), 0);
    }

    /// More than the bus would tell at a time, on the first connection and on the next.
    void manyWatches()
    {
        constexpr int WATCHES = 250;
        Bus bus;
        TrelanClient client("client", bus.settings());
        Seen seen;
        QList<TrelanWatch> watches;
        for (int i = 0; i < WATCHES; ++i)
            watches << seen.watch(client, QString("x%1").arg(i));
        for (const TrelanWatch &watch : watches)
            QCOMPARE(outcome(watch), TrelanFailure::None);
        bus.stop();
        QTRY_COMPARE(client.state().status(), TrelanConnectionState::Away);
        bus.start();
        for (int i = 0; i < WATCHES; ++i)
            client.publish(QString("x%1").arg(i), n(1), TrelanOptions().orWaitForBus());
        QTRY_COMPARE(seen.told.size(), WATCHES);
    }

    /// A context that does not get at its events skips values, and ends with the newest ones.
    void slowContextSkipsValues()
    {
        Bus bus;
        TrelanClient writer("writer", bus.settings()), reader("reader", bus.settings());
        Seen seen;
        const TrelanWatch watch = seen.watch(reader, "x.*");
        QVERIFY(watch.wait(LONG_MS));
        constexpr int CHANGES = 5000;
        for (int i = 1; i <= CHANGES; ++i) {
            const TrelanPending pending = writer.publish("x.a", n(i));
            if (i % 100 == 0)
                QVERIFY(pending.wait(LONG_MS));
        }
        QCOMPARE(outcome(writer.publish("x.b", n(1))), TrelanFailure::None);
        // A later watch is whole once everything before it has arrived.
        QObject context;
        QCOMPARE(outcome(reader.watch("z", &context, [](const TrelanObject &) {})),
                 TrelanFailure::None);
        QTRY_VERIFY(seen.told.contains("x.b=1"));
        QVERIFY2(seen.told.size() <= 1001, qPrintable(QString::number(seen.told.size())));
        QVERIFY(seen.told.contains(QString("x.a=%1").arg(CHANGES)));
    }

    /// A function that runs an event loop is told the rest in order, and nothing older afterwards.
    void valuesStayInOrderInNestedLoops()
    {
        Bus bus;
        TrelanClient writer("writer", bus.settings()), reader("reader", bus.settings());
        QObject context;
        QList<int> told;
        const auto take = [&](const TrelanObject &object) {
            told << object.content().value("n").toInt();
            if (told.size() > 1)
                return;
            writer.publish("x", n(3));
            QTRY_VERIFY(told.contains(3));
        };
        QVERIFY(reader.watch("x", &context, take).wait(LONG_MS));
        QVERIFY(writer.waitForConnected(LONG_MS)); // else the second value replaces the first
        writer.publish("x", n(1));
        QCOMPARE(outcome(writer.publish("x", n(2))), TrelanFailure::None);
        // The watch of another wildcard is whole after the values before it have arrived.
        QVERIFY(reader.watch("z", &context, [](const TrelanObject &) {}).wait(LONG_MS));
        QTRY_COMPARE(told, (QList<int> {1, 2, 3}));
    }

    void boundsAreKept()
    {
        Bus bus;
        bus.stop();
        TrelanClient client("client", bus.settings().setLimits(2, 1000));
        QTRY_COMPARE(client.state().status(), TrelanConnectionState::Away);
        const TrelanPending first = client.publish("a", n(1)), second = client.publish("b", n(1));
        const TrelanPending third = client.publish("c", n(1));
        QCOMPARE(third.failure().kind(), TrelanFailure::Refused);
        QCOMPARE(third.failure().code(), quint16(TrelanError::StorageAccessError));
        bus.start();
        QCOMPARE(outcome(first), TrelanFailure::None);
        QCOMPARE(outcome(second), TrelanFailure::None);
        QCOMPARE(outcome(client.publish("c", n(1))), TrelanFailure::None);
    }

    void saysWhyItIsAway_data()
    {
        const TestTable<QString, Change, TrelanConnectionState::Reason> row("client", "change",
                                                                            "reason");
        using Settings = TrelanClientSettings;
        using State = TrelanConnectionState;
        row(
            "no bus", "a", [](Settings &, Bus &bus) { bus.stop(); }, State::NoBus);
        row(
            "a host name", "a", [](Settings &s, Bus &) { s.setHost("localhost"); }, State::NoBus);
        row(
            "a port 0", "a", [](Settings &s, Bus &) { s.setPorts(0, 1); }, State::NoBus);
        row(
            "no name", "", [](Settings &, Bus &) {}, State::Refused);
        row(
            "swapped ports", "a",
            [](Settings &s, Bus &) { s.setPorts(s.queryPort(), s.messagePort()); },
            State::OtherPort);
    }

    void saysWhyItIsAway()
    {
        QFETCH(QString, client);
        QFETCH(Change, change);
        QFETCH(TrelanConnectionState::Reason, reason);
        Bus bus;
        TrelanClientSettings settings = bus.settings();
        change(settings, bus);
        TrelanClient away(client, settings);
        QTRY_COMPARE(away.state().reason(), reason);
        QVERIFY(!away.state().description().isEmpty());
        QCOMPARE(outcome(away.load("x")), TrelanFailure::NotConnected);
    }

    /// A bus without any additions: the client asks for the objects instead.
    void busWithoutFeatures_data()
    {
        const TestTable<bool> row("refuses");
        row("ignores the question", false);
        row("refuses the question", true);
    }

    void busWithoutFeatures()
    {
        QFETCH(bool, refuses);
        const auto handshake = [refuses](ScriptedPeer &peer) {
            const bool isRefused = refuses && peer.frame.data.contains("features");
            return peer.send(ScriptedServer::reply("handshake", isRefused ? 2 : 0));
        };
        const ScriptedServer messages([&](ScriptedPeer &peer) {
            if (peer.readFrame() && handshake(peer))
                peer.awaitEnd();
        });
        const ScriptedServer queries([&](ScriptedPeer &peer) {
            while (peer.readFrame()) {
                const QByteArray operation = peer.frame.operation.toUtf8();
                if (operation == "handshake")
                    handshake(peer);
                else if (operation == "loadObjects")
                    peer.send(ScriptedServer::reply(
                        operation, 0, {},
                        R"({"x.a":{"nm":"x.a","cnt":{"n":1},"p":"p","uid":"u","dt":"1","opt":2}})"));
                else
                    peer.send(ScriptedServer::reply(operation));
            }
        });
        TrelanClient client("old",
                            TrelanClientSettings().setPorts(messages.port(), queries.port()));
        Seen seen;
        QCOMPARE(outcome(seen.watch(client, "x.*")), TrelanFailure::None);
        QTRY_COMPARE(seen.told, QStringList {"x.a=1"});
        QVERIFY(client.state().lacking().contains("removals"));
        for (const ScriptedFrame &frame : queries.frames()) {
            if (frame.operation == "sub")
                QCOMPARE(frame.data.keys(), QStringList {"wc"});
        }
    }

    /// The signal crosses from the client's thread, so that Qt has to know its type by name.
    void stateReachesTheContextsThread()
    {
        Bus bus;
        TrelanClient client("client", bus.settings());
        QVERIFY(client.waitForConnected());
        bool isAway = false;
        connect(&client, &TrelanClient::stateChanged, this, [&](const TrelanConnectionState &now) {
            isAway = QThread::currentThread() == thread() && !now.isConnected();
        });
        bus.stop();
        QTRY_VERIFY(isAway);
    }

    void silentBusIsGivenUp()
    {
        const ScriptedServer silent([](ScriptedPeer &peer) { peer.awaitEnd(); });
        TrelanClient client(
            "client",
            TrelanClientSettings().setPorts(silent.port(), silent.port()).setPatience(100));
        const TrelanPending waits = client.load("x", TrelanOptions().within(400).orWaitForBus());
        QTRY_COMPARE(client.state().status(), TrelanConnectionState::Away);
        QCOMPARE(outcome(waits), TrelanFailure::TimedOut);
        QCOMPARE(outcome(client.load("x")), TrelanFailure::NotConnected);
    }

    void destructorWaitsNoLongerThanForReplies()
    {
        constexpr int MOST_MS = 200;
        Bus bus;
        Seen seen;
        qint64 shortest = MOST_MS;
        for (int i = 0; i < 5; ++i) {
            auto client = std::make_unique<TrelanClient>("client", bus.settings());
            QVERIFY(client->waitForConnected(LONG_MS));
            seen.watch(*client, "x.*");
            QElapsedTimer time;
            time.start();
            client.reset();
            shortest = qMin(shortest, time.elapsed());
        }
        QVERIFY(shortest < MOST_MS);
    }

    void waitingInTheClientsThreadIsRefused()
    {
        Bus bus;
        TrelanClient client("client", bus.settings().setPatience(LONG_MS));
        std::atomic_int waited {-1};
        // Without a context the function runs in the client's own thread.
        connect(&client, &TrelanClient::stateChanged, [&](const TrelanConnectionState &) {
            waited = client.publish("x", n(1)).wait(LONG_MS) ? 1 : 0;
        });
        bus.stop();
        QTRY_COMPARE(waited.load(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_TrelanClient)
#include "tst_trelanclient.moc"
