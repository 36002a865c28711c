#include <scriptedserver.h>
#include <testsupport.h>
#include <trelanbus.h>
#include <trelanclient.h>
#include <trelanqueryhandler.h>

#include <memory>

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

} // namespace

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
        QCOMPARE(outcome(client.remove("x.a")), TrelanFailure::None);
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
        bus.start();
        QCOMPARE(outcome(newer), TrelanFailure::None);
        QCOMPARE(outcome(waits), TrelanFailure::None);
        QTRY_VERIFY(reader.state().isConnected());
        QTRY_VERIFY(seen.told.contains("-x.lost"));
        QTRY_VERIFY(seen.told.contains("x.new=3"));
        QVERIFY(!seen.told.contains("x.new=2"));
        const auto kept = other.load("x.kept", TrelanOptions().orWaitForBus());
        QCOMPARE(outcome(kept), TrelanFailure::None);
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
};

QTEST_GUILESS_MAIN(tst_TrelanClient)
#include "tst_trelanclient.moc"
