#include <rawpeer.h>
#include <scriptedserver.h>
#include <sharedobjectsstorage.h>
#include <testtable.h>
#include <trelancontroller.h>
#include <trelanmessagereciever.h>
#include <trelanmsgworker.h>
#include <trelanqueryhandler.h>
#include <trelanqueryworker.h>

#include <QtTest/QtTest>

using namespace bus;

namespace
{

TrelanChannelSettings settingsOf(const TrelanBus &bus, TrelanTransport::Mode mode)
{
    return TrelanChannelSettings().setMode(mode).setPorts(bus.msgPort(), bus.queryPort());
}

class Controller : public TrelanController
{
public:
    using TrelanController::TrelanController;
    QStringList wildcards {"*"};
    TrelanMsgWorker::Options options;
    TrelanQueryWorker::Options queryOptions;
    QStringList objects; // names, as they come, with a sign before those of removed ones
    TrelanQueryWorker *queries = nullptr;

protected:
    bool doStart() override
    {
        connect(this, &Controller::unprocessedObject, this,
                [this](const auto &object) { objects << object.name(); });
        connect(this, &Controller::objectRemoved, this,
                [this](const QString &name) { objects << '-' + name; });
        connect(this, &Controller::unprocessedMessage, this,
                [this](const auto &message) { objects << message.message(); });
        queries = new TrelanQueryWorker(clientName(), wildcards);
        queries->setOptions(queryOptions);
        return initWorkers(new TrelanMsgWorker(clientName(), options), queries);
    }
};

using Server = ScriptedServer;

/// Refuses every handshake that has a key beside the name.
void refuseKeys(ScriptedPeer &peer)
{
    while (peer.readFrame() &&
           peer.send(Server::reply(peer.frame.operation.toUtf8(),
                                   peer.frame.data.size() == 1 ? 0 : 2, "no such key"))) {}
}

TrelanObject named(const QString &name)
{
    TrelanObject object;
    object.setName(name);
    return object;
}

} // namespace

/// What channels, workers and controller do for who asks for it: settings of their own, states,
/// results, features and removals.
class tst_TrelanChannels : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void twoBusesInOneProcess()
    {
        const TestBus first, second;
        Controller paced("me"), prompt("me");
        paced.setChannelSettings(settingsOf(first, TrelanTransport::Paced));
        prompt.setChannelSettings(TrelanChannelSettings().setMode(TrelanTransport::Prompt));
        paced.start();
        prompt.setBus("127.0.0.1", second.msgPort(), second.queryPort());
        QCOMPARE(TrelanQueryHandler::queryPort(), TrelanQueryHandler::DEFAULT_PORT);

        // Each bus has a client of its own that publishes until the controller has heard of it.
        const auto publishUntilHeard = [](const TrelanBus &bus, const Controller &controller,
                                          const QString &name) {
            TrelanQueryHandler other("other");
            other.setChannelSettings(settingsOf(bus, TrelanTransport::Prompt));
            QVERIFY(other.open());
            QTRY_VERIFY(other.publish(named(name)) && controller.objects.contains(name));
        };
        publishUntilHeard(first, paced, "of.first");
        publishUntilHeard(second, prompt, "of.second");
        QVERIFY(!paced.objects.contains("of.second"));
        QVERIFY(!prompt.objects.contains("of.first"));
    }

    void handlersOfTwoModes()
    {
        const TestBus bus;
        const auto duration = [&](TrelanTransport::Mode mode) {
            TrelanQueryHandler handler("me");
            handler.setChannelSettings(settingsOf(bus, mode));
            if (!handler.open())
                return -1ll;
            QElapsedTimer clock;
            clock.start();
            for (int i = 0; i < 20; ++i)
                handler.publish(named("a"));
            return clock.elapsed();
        };
        const auto prompt = duration(TrelanTransport::Prompt);
        const auto paced = duration(TrelanTransport::Paced);
        QVERIFY2(paced >= 200, qPrintable(QString::number(paced)));
        QVERIFY2(prompt >= 0 && prompt < paced, qPrintable(QString::number(prompt)));
    }

    void patienceIsThatOfTheChannel()
    {
        const ScriptedServer silent([](ScriptedPeer &peer) { peer.awaitEnd(); });
        TrelanQueryHandler handler("me");
        handler.setChannelSettings(TrelanChannelSettings()
                                       .setMode(TrelanTransport::Prompt)
                                       .setPatience(50)
                                       .setPorts(1, silent.port()));
        QVERIFY(!handler.open()); // within the time of a test, which 30 s are not
        QCOMPARE(handler.lastFailure(), TrelanQueryHandler::Timeout);
    }

    void featuresOfTheBus()
    {
        const TestBus bus;
        TrelanQueryHandler handler("me");
        TrelanMessageReciever receiver("me");
        QSignalSpy accepted(&receiver, &TrelanMessageReciever::handshakeAccepted);
        const auto ask = [&](bool asks) {
            handler.setChannelSettings(settingsOf(bus, TrelanTransport::Paced));
            handler.setAsksFeatures(asks);
            handler.close();
            receiver.setChannelSettings(handler.channelSettings());
            receiver.setAsksFeatures(asks);
            receiver.close();
            return handler.open() && receiver.open() && accepted.wait();
        };
        QVERIFY(ask(true));
        QVERIFY(handler.features().contains("now"));
        QCOMPARE(receiver.features(), handler.features());
        QVERIFY(ask(false));
        QCOMPARE(handler.features() + receiver.features(), QStringList());
    }

    void portOfTheOtherChannelIsNoticed()
    {
        const TestBus bus;
        const auto swapped = TrelanChannelSettings().setPorts(bus.queryPort(), bus.msgPort());
        TrelanQueryHandler handler("me");
        handler.setChannelSettings(swapped);
        handler.setAsksFeatures(true);
        QVERIFY(!handler.open());
        QCOMPARE(handler.lastFailure(), TrelanQueryHandler::Refused);
        QCOMPARE(handler.lastError(), TrelanError::UnsupportedRequest);

        TrelanMessageReciever receiver("me");
        receiver.setChannelSettings(swapped);
        receiver.setAsksFeatures(true);
        QSignalSpy refused(&receiver, &TrelanMessageReciever::handshakeRefused);
        QVERIFY(receiver.open());
        QVERIFY(refused.wait());
        QCOMPARE(receiver.refusal(), TrelanError::UnsupportedRequest);
        QVERIFY(!receiver.isOpen());
    }

    void keyThatIsRefusedIsLeftOut_data()
    {
        const TestTable<bool> row("prompt");
        row("Paced", false);
        row("Prompt", true);
    }

    void keyThatIsRefusedIsLeftOut()
    {
        QFETCH(bool, prompt);
        const auto mode = prompt ? TrelanTransport::Prompt : TrelanTransport::Paced;
        const Server server(refuseKeys);
        const auto settings =
            TrelanChannelSettings().setMode(mode).setPorts(server.port(), server.port());
        TrelanQueryHandler handler("me");
        handler.setChannelSettings(settings);
        handler.setAsksFeatures(true);
        QVERIFY(handler.open());
        QCOMPARE(handler.lastFailure(), TrelanQueryHandler::None);
        QCOMPARE(server.frames().size(), 2);

        // In Prompt mode the message channel has a key of its own, and is refused for ever.
        TrelanMessageReciever receiver("me");
        receiver.setChannelSettings(settings);
        receiver.setAsksFeatures(true);
        QSignalSpy accepted(&receiver, &TrelanMessageReciever::handshakeAccepted);
        QSignalSpy refused(&receiver, &TrelanMessageReciever::handshakeRefused);
        QVERIFY(receiver.open());
        QTRY_COMPARE(accepted.size() + refused.size(), 1);
        QCOMPARE(receiver.isOpen(), !prompt);
        QCOMPARE(server.frames().size(), 4);
        QVERIFY(!server.frames().last().data.contains("features"));
    }

    void stateFollowsTheBus()
    {
        TestBus bus;
        TrelanBusSettings again;
        again.setQueryPort(bus.queryPort());
        again.setMsgPort(bus.msgPort());
        Controller controller("me");
        controller.setChannelSettings(settingsOf(bus, TrelanTransport::Prompt));
        QStringList states;
        connect(&controller, &Controller::stateChanged, [&](const TrelanConnectionState &state) {
            states << state.toString().section(' ', 0, 0);
            if (QThread::currentThread() != controller.thread())
                states << "in another thread";
        });
        controller.start();
        QTRY_COMPARE(states, QStringList("connected"));
        bus.stop();
        QTRY_COMPARE(states.last(), "away");
        QCOMPARE(controller.state().reason(), TrelanConnectionState::NoBus);
        QVERIFY(bus.start(again));
        QTRY_COMPARE(states, QStringList({"connected", "away", "connected"}));
        controller.stop();
        QCOMPARE(states.mid(3), QStringList("away"));
        QCOMPARE(controller.state().description(), "stopped");
    }

    void stateSaysWhatIsWrong()
    {
        const TestBus bus;
        const Server refusing([](ScriptedPeer &peer) {
            while (peer.readFrame() && peer.send(Server::reply("handshake", 3, "not you"))) {}
        });
        using State = TrelanConnectionState;
        const auto reasonAt = [](quint16 msgPort, quint16 queryPort, State::Reason expected) {
            Controller controller("me");
            controller.setChannelSettings(TrelanChannelSettings()
                                              .setMode(TrelanTransport::Prompt)
                                              .setPorts(msgPort, queryPort));
            controller.start();
            QTRY_COMPARE(controller.state().reason(), expected);
            QCOMPARE(controller.state().status(), State::Away);
            QVERIFY(controller.state().description().contains("127.0.0.1:"));
        };
        reasonAt(1, 1, State::NoBus);
        reasonAt(bus.msgPort(), 1, State::NoBus);
        reasonAt(bus.msgPort(), bus.msgPort(), State::OtherPort);
        reasonAt(refusing.port(), refusing.port(), State::Refused);
        reasonAt(refusing.port(), bus.queryPort(), State::Refused);
    }

    void stateSaysThatTheNameIsTaken()
    {
        const TestBus bus;
        Controller first("me"), second("me");
        int taken = 0;
        for (Controller *controller : {&first, &second}) {
            controller->setChannelSettings(settingsOf(bus, TrelanTransport::Prompt));
            connect(controller, &Controller::stateChanged, [&](const auto &state) {
                taken += state.reason() == TrelanConnectionState::NameTaken ? 1 : 0;
            });
            controller->start();
        }
        QTRY_VERIFY(taken > 2);
    }

    void removalsAreToldToWhoAsks()
    {
        const TestBus bus;
        Controller asking("asking"), other("other"), half("half");
        asking.options = {TrelanMsgWorker::TakeRemovals, TrelanMsgWorker::StoreObjects,
                          TrelanMsgWorker::AskFeatures};
        asking.queryOptions = {TrelanQueryWorker::SubscribeRemovals,
                               TrelanQueryWorker::AskFeatures};
        half.queryOptions = TrelanQueryWorker::SubscribeRemovals;
        SharedObjectsStorage storage;
        for (Controller *controller : {&asking, &other, &half}) {
            controller->setChannelSettings(settingsOf(bus, TrelanTransport::Prompt));
            controller->start();
            QTRY_VERIFY(controller->state().isConnected());
            QCOMPARE(controller->state().lacking(), QStringList());
        }
        asking.queries->askToPublish(named("a"));
        QTRY_COMPARE(asking.objects, QStringList("a"));
        QVERIFY(storage.contains("a"));
        asking.queries->askToRemove({"a", "never.there"});
        asking.queries->askToPublish(named("last"));
        QTRY_COMPARE(asking.objects, QStringList({"a", "-a", "last"}));
        QVERIFY(!storage.contains("a"));
        QTRY_COMPARE(other.objects, QStringList({"a", "last"}));
        // To a receiver that does not take removals for what they are, they are messages.
        QTRY_COMPARE(half.objects.size(), 3);
        QVERIFY(half.objects[1].contains("\"__reason__\""));
    }

    void operationsTellTheirResults()
    {
        const TestBus bus;
        Controller controller("me");
        controller.wildcards.clear();
        controller.setChannelSettings(settingsOf(bus, TrelanTransport::Prompt));
        controller.start();
        QTRY_VERIFY(controller.state().isConnected());
        const auto kind = [](const TrelanPending &pending) {
            return pending.wait() ? int(pending.failure().kind()) : -1;
        };
        TrelanQueryWorker &queries = *controller.queries;
        TrelanMessage message;
        message.setReciever("nobody");

        QCOMPARE(kind(queries.askToSubscribe({"a.*", "b"})), TrelanFailure::None);
        QCOMPARE(kind(queries.askToPublish(named("a.1"))), TrelanFailure::None);
        QTRY_COMPARE(controller.objects, QStringList("a.1"));
        const auto loaded = queries.askToLoad("a.1");
        QCOMPARE(kind(loaded), TrelanFailure::None);
        QCOMPARE(loaded.result().publisher(), "me");
        const auto all = queries.askToLoadAll("a.*");
        QCOMPARE(kind(all), TrelanFailure::None);
        QCOMPARE(all.result().keys(), QStringList("a.1"));
        QCOMPARE(kind(queries.askToRemove({"a.1"})), TrelanFailure::None);
        const auto missing = queries.askToLoad("a.1");
        QCOMPARE(kind(missing), TrelanFailure::Refused);
        QVERIFY(missing.failure().code() != 0);
        QCOMPARE(kind(queries.askToSend(message)), TrelanFailure::NobodyThere);
        QCOMPARE(kind(queries.askToUnsubscribe({"a.*"})), TrelanFailure::None);
        queries.askToPublish(named("a.2"));
        queries.askToPublish(named("b"));
        QTRY_COMPARE(controller.objects, QStringList({"a.1", "b"}));
    }

    void operationsAlwaysEnd_data()
    {
        const TestTable<QByteArray, bool, int> row("what", "prompt", "kind");
        row("silent", "silent", true, TrelanFailure::TimedOut);
        row("silent, several on their way", "silent twice", true, TrelanFailure::NotConnected);
        row("lost", "lost", true, TrelanFailure::NotConnected);
        row("lost, Paced", "lost", false, TrelanFailure::NotConnected);
        row("stopped", "stopped", true, TrelanFailure::NotConnected);
        row("stopped, Paced", "stopped", false, TrelanFailure::NotConnected);
        row("never there", "away", true, TrelanFailure::NotConnected);
        row("never started", "unstarted", true, TrelanFailure::NotConnected);
    }

    void operationsAlwaysEnd()
    {
        QFETCH(QByteArray, what);
        QFETCH(bool, prompt);
        const Server server([&](ScriptedPeer &peer) {
            if (peer.readFrame() && peer.send(Server::reply("handshake")) && peer.readFrame() &&
                what != "lost")
                peer.awaitEnd();
        });
        const auto settings =
            TrelanChannelSettings()
                .setMode(prompt ? TrelanTransport::Prompt : TrelanTransport::Paced)
                .setPatience(what.startsWith("silent") ? 100 : 30000)
                .setPorts(1, what == "away" ? 1 : server.port());
        Controller controller("me");
        controller.wildcards.clear();
        controller.setChannelSettings(settings);
        TrelanPending pending;
        if (what == "unstarted") {
            TrelanQueryWorker worker("me", {});
            pending = worker.askToRemove({"a"});
            QVERIFY(!pending.isFinished());
        } else {
            controller.start();
            const auto expected =
                what == "away" ? TrelanConnectionState::Away : TrelanConnectionState::Connected;
            QTRY_COMPARE(controller.queries->state().status(), expected);
            if (what == "silent twice")
                controller.queries->askToRemove({"a"});
            pending = controller.queries->askToRemove({"a"});
        }
        if (what == "stopped") {
            QTRY_COMPARE(server.frames().size(), 2);
            const auto waiting = controller.queries->askToPublish(named("b"));
            controller.stop();
            QCOMPARE(waiting.failure().kind(), TrelanFailure::NotConnected);
        }
        QVERIFY(pending.wait(5000));
        QTEST(int(pending.failure().kind()), "kind");
        QVERIFY(!pending.failure().description().isEmpty());
    }
};

QTEST_GUILESS_MAIN(tst_TrelanChannels)
#include "tst_trelanchannels.moc"
