#include "client/clientengine.h"

#include "client/clientlog.h"
#include "client/opencall.h"
#include "codec/publishrequest.h"
#include "codec/replies.h"
#include "trelanframe.h"
#include "values/uids.h"

#include <wirekeys.h>

#include <QtCore/QStringBuilder>

#include <utility>

namespace bus
{

namespace
{

constexpr qint64 MAX_LIMIT_MS = 3600000;
constexpr int MAX_OPEN_CALLS = 1000;
constexpr int MAX_ROUNDS = 32; // a bus refuses many markers at a time

QByteArray request(const QString &operation, const QVariantMap &data)
{
    return TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(operation, data),
                               TrelanTransport::Light);
}

TrelanFailure failureOf(const Operation &operation, const TrelanError &error)
{
    const bool isNobody = operation.message && error.error() == TrelanError::UnregisteredClient;
    return {isNobody ? TrelanFailure::NobodyThere : TrelanFailure::Refused, error.description(),
            quint16(error.error())};
}

} // namespace

ClientEngine::ClientEngine(const QString &clientName, const TrelanClientSettings &settings,
                           const std::shared_ptr<ClientDoor> &door, ClientEvents &events)
    : _settings(settings)
    , _door(door)
    , _events(events)
    , _session(clientName, settings)
    , _openCalls(std::make_shared<std::atomic<int>>(0))
{
    connect(&_session, &BusSession::up, this, &ClientEngine::onUp);
    connect(&_session, &BusSession::down, this, &ClientEngine::onDown);
    connect(&_session.queries(), &AskingChannel::idle, this, &ClientEngine::reportIfIdle);
    connect(&_session, &BusSession::arrived, this, &ClientEngine::onArrived);
    connect(&_session, &BusSession::stateChanged, this, [this](const TrelanConnectionState &state) {
        _door->setState(state);
        _events.onState(state);
    });
}

ClientEngine::~ClientEngine()
{
    stop();
}

void ClientEngine::start()
{
    _door->open(this);
    _session.start();
}

void ClientEngine::stop()
{
    _door->close();
    _session.stop(); // what was asked ends, or comes into the outbox
    const TrelanFailure failure(TrelanFailure::NotConnected,
                                QStringLiteral("the client has ended"));
    while (const Operation::Ref operation = _outbox.takeNext())
        fail(operation, failure);
    const auto calls = std::exchange(_calls, {});
    for (const Operation::Ref &operation : calls)
        fail(operation, failure);
    for (const WatchEntry &entry : std::as_const(_watchEntries)) {
        if (entry.whole)
            fail(entry.whole, failure);
    }
    _watchEntries.clear();
    _served.clear();
}

void ClientEngine::wake()
{
    QMetaObject::invokeMethod(
        this,
        [this] {
            _door->runTasks(*this);
            reportIfIdle();
        },
        Qt::QueuedConnection);
}

Operation::Ref ClientEngine::makeOperation(const TrelanOptions &options)
{
    auto operation = std::make_shared<Operation>();
    operation->deadline = steadyNow() + options.milliseconds();
    operation->waitsForBus = options.waitsForBus();
    operation->mayRepeat = options.mayRepeat();
    return operation;
}

Operation::Ref ClientEngine::send(ClientDoor &door, const TrelanMessage &message,
                                  const TrelanOptions &options)
{
    Operation::Ref operation = makeOperation(options);
    operation->message = message;
    if (message.uid().isEmpty())
        operation->message->setUid(uids::random());
    operation->cost = message.message().size();
    door.post(operation, [operation](ClientEngine &engine) { engine.begin(operation); });
    return operation;
}

Operation::Ref ClientEngine::makeCall(ClientDoor &door, TrelanCommand call,
                                      const TrelanOptions &options)
{
    Operation::Ref operation = makeOperation(options);
    call.setUid(uids::random());
    const TrelanMessage message = messageOf(call);
    operation->message = message;
    operation->call = message.uid();
    operation->cost = message.message().size();
    if (call.hasDestination()) {
        door.post(operation, [operation](ClientEngine &engine) { engine.begin(operation); });
    } else {
        operation->state->fail({TrelanFailure::Refused, QStringLiteral("a call needs a receiver"),
                                TrelanError::IncorrectRequestData});
    }
    return operation;
}

void ClientEngine::begin(const Operation::Ref &operation)
{
    operation->place =
        _deadlines.add(operation->deadline, [this, operation] { expire(operation); });
    if (_settings.keep() && operation->isStoredPublish())
        _kept.keep(operation->storedName, operation->frame);
    for (const QString &name : std::as_const(operation->removedNames))
        _kept.forget(name);
    if (_session.isUp())
        submit(operation);
    else
        wait(operation);
}

void ClientEngine::reportIfIdle()
{
    const bool isIdle = _session.isUp() ? _session.queries().isIdle() : !_session.isFirstAttempt();
    if (_reportsIdle && isIdle)
        _door->setIdle(true);
}

void ClientEngine::onUp()
{
    const QString instance = _session.features().instance;
    const bool isRestarted = _wasUp && (instance.isEmpty() || instance != _instance);
    _instance = instance;
    _seen.beginConnection();
    _wasUp = true;
    while (_session.isUp() && !_outbox.isEmpty()) { // a connection may be lost by sending
        if (const Operation::Ref operation = _outbox.takeNext())
            submit(operation);
    }
    if (isRestarted && _settings.keep())
        publishAgain();
    const QStringList wildcards = _watches.wildcards();
    for (const QString &wildcard : wildcards)
        subscribe(wildcard);
    reportIfIdle();
}

void ClientEngine::onDown()
{
    _watches.endRounds();
    _toSubscribe.clear();
    const auto calls = std::exchange(_calls, {});
    for (const Operation::Ref &operation : calls)
        onLost(operation);
    // What has waited for the first attempt, and does not wait longer.
    Outbox waiting;
    std::swap(waiting, _outbox);
    while (const Operation::Ref operation = waiting.takeNext())
        wait(operation);
    for (WatchEntry &entry : _watchEntries) {
        if (entry.whole)
            fail(std::exchange(entry.whole, {}),
                 {TrelanFailure::NotConnected, _session.state().description()});
    }
    reportIfIdle();
}

void ClientEngine::onArrived(const TrelanMessage &message)
{
    const Incoming incoming = Incoming::of(message, !_session.features().names.isEmpty());
    const QString key = message.sender() % QLatin1Char('.') % message.uid();
    if (!_seen.add(key, incoming.isNotification()))
        return;
    switch (incoming.kind) {
    case Incoming::Message:
        return _events.onMessage(message);
    case Incoming::Object:
        return takeObject(incoming);
    case Incoming::Removal:
        return _watches.takeRemoval(incoming.name);
    case Incoming::Told:
        _watches.takeTold(incoming.name);
        return subscribeNext();
    case Incoming::Command:
        if (incoming.command.parentUid().isEmpty())
            takeCall(incoming.command);
        else
            takeAnswer(incoming.command, incoming.hasParams);
    }
}

void ClientEngine::takeObject(const Incoming &incoming)
{
    TrelanObject object = incoming.object;
    if (!_session.features().has(features::TOLD))
        return _watches.takeObject(object, incoming.stored, WatchTable::digestOf(object));
    object.setStored(incoming.stored != Incoming::Unknown);
    _watches.takeObject(object, incoming.stored, incoming.digest);
}

void ClientEngine::submit(const Operation::Ref &operation)
{
    if (!operation->call.isEmpty())
        _calls.insert(operation->call, operation); // the answer may be there before the reply
    _session.queries().ask(
        frameOf(*operation),
        [this, operation](const AskingChannel::Reply &reply) { onReply(operation, reply); });
}

/// The request, with the time that is left where it is a message and the bus takes limits.
QByteArray ClientEngine::frameOf(Operation &operation) const
{
    if (!operation.message)
        return operation.frame;
    const bool isLimited =
        !operation.message->isStored() && _session.features().has(features::LIMIT);
    const qint64 left = qBound<qint64>(1, operation.deadline - steadyNow(), MAX_LIMIT_MS);
    return requests::message(*operation.message, isLimited ? left : 0);
}

void ClientEngine::onReply(const Operation::Ref &operation, const AskingChannel::Reply &reply)
{
    if (operation->isOver)
        return;
    if (!reply.isThere)
        return onLost(operation);
    if (!reply.isYes()) {
        if (reply.error.error() == TrelanError::UnsupportedRequest &&
            _session.features().channel.isEmpty())
            _session.takeForOtherPort();
        return fail(operation, failureOf(*operation, reply.error));
    }
    if (!operation->call.isEmpty())
        return; // its answer is yet to come
    done(operation, operation->result ? operation->result(reply.data) : QVariant());
}

/// The connection has ended before the operation has.
void ClientEngine::onLost(const Operation::Ref &operation)
{
    if (operation->isOver)
        return;
    _calls.remove(operation->call);
    operation->waitsForBus = operation->waitsForBus || operation->mayRepeat;
    if (operation->mayRepeat && !operation->call.isEmpty()) {
        // Whoever has got the call takes it for seen, and its answer is lost if it came meanwhile.
        operation->call = uids::random();
        operation->message->setUid(operation->call);
    }
    if (operation->isStoredPublish() || operation->mayRepeat)
        wait(operation);
    else
        failUnsent(operation,
                   QStringLiteral("the connection was lost before the answer was there"));
}

/// A value that waits is not to come after its removal, which is as old as this operation.
void ClientEngine::failUnsent(const Operation::Ref &operation, const QString &description)
{
    for (const QString &name : std::as_const(operation->removedNames)) {
        if (const Operation::Ref publish = _outbox.takePublish(name))
            fail(publish,
                 {TrelanFailure::NotConnected,
                  QStringLiteral("\"%1\" was to be removed before it was sent").arg(name)});
    }
    fail(operation, {TrelanFailure::NotConnected, description});
}

bool ClientEngine::mayWait(const Operation &operation) const
{
    return _session.isFirstAttempt() || operation.isStoredPublish() || operation.waitsForBus;
}

void ClientEngine::wait(const Operation::Ref &operation)
{
    if (!mayWait(*operation))
        return failUnsent(operation, _session.state().description());
    if (const Operation::Ref replaced = _outbox.append(operation))
        fail(
            replaced,
            {TrelanFailure::Replaced,
             QStringLiteral("a newer value of \"%1\" takes its place").arg(operation->storedName)});
}

/// A value that is to be stored goes on its way: only who has asked waits no longer.
void ClientEngine::expire(const Operation::Ref &operation)
{
    const TrelanFailure failure(TrelanFailure::TimedOut, QStringLiteral("its time is over"));
    if (!operation->isStoredPublish())
        return fail(operation, failure);
    _deadlines.remove(*std::exchange(operation->place, {}));
    operation->state->fail(failure);
}

void ClientEngine::done(const Operation::Ref &operation, const QVariant &value)
{
    if (operation->isOver)
        return;
    end(operation);
    operation->state->finish(value);
}

void ClientEngine::fail(const Operation::Ref &operation, const TrelanFailure &failure)
{
    if (operation->isOver)
        return;
    end(operation);
    operation->state->fail(failure);
}

void ClientEngine::end(const Operation::Ref &operation)
{
    operation->isOver = true;
    if (operation->place)
        _deadlines.remove(*std::exchange(operation->place, {}));
    if (!operation->call.isEmpty())
        _calls.remove(operation->call);
    _door->release(*operation);
    operation->frame.clear(); // it may stay in its place among what waits
}

void ClientEngine::watch(WatchTable::Number number, const QString &wildcard,
                         const std::shared_ptr<WatchMailbox> &mailbox,
                         const Operation::Ref &operation)
{
    if (!mailbox->isConnected())
        return fail(operation,
                    {TrelanFailure::Refused, QStringLiteral("the watch has ended already")});
    operation->place = _deadlines.add(operation->deadline, [this, operation] {
        fail(operation, {TrelanFailure::TimedOut, QStringLiteral("the watch is not whole yet")});
    });
    const WatchTable::Listener listener {
        [mailbox](const TrelanObject &object, bool isEvent) { mailbox->put(object, isEvent); },
        [mailbox](const QString &name) { mailbox->putRemoval(name); },
        [this, number] {
            const auto entry = _watchEntries.find(number);
            if (entry != _watchEntries.end() && entry->whole)
                done(std::exchange(entry->whole, {}));
        }};
    _watches.add(number, wildcard, listener);
    _watchEntries.insert(number, {mailbox, operation});
    if (_session.isUp()) {
        subscribe(wildcard);
    } else if (!_session.isFirstAttempt()) {
        _watchEntries[number].whole.reset();
        fail(operation, {TrelanFailure::NotConnected, _session.state().description()});
    }
}

void ClientEngine::subscribe(const QString &wildcard)
{
    _toSubscribe.enqueue(wildcard);
    subscribeNext();
}

void ClientEngine::subscribeNext()
{
    while (_session.isUp() && !_toSubscribe.isEmpty() && _watches.openRounds() < MAX_ROUNDS) {
        const QString wildcard = _toSubscribe.dequeue();
        const quint64 round = _watches.beginRound(wildcard);
        if (round != 0)
            ask(wildcard, round);
    }
}

/// Asks the bus for what begins with this round.
void ClientEngine::ask(const QString &wildcard, quint64 round)
{
    const BusFeatures &features = _session.features();
    const bool tells = features.has(features::NOW) && features.has(features::TOLD);
    QVariantMap data {{keys::WILDCARD, wildcard}};
    if (tells) {
        data.insert(keys::NOW, true);
        data.insert(keys::TOLD, true);
    }
    if (features.has(features::REMOVALS))
        data.insert(keys::REMOVALS, true);
    _session.queries().ask(request(operations::SUBSCRIBE, data),
                           [this, wildcard, round](const AskingChannel::Reply &reply) {
                               if (reply.isThere && !reply.isYes())
                                   refuseWatches(wildcard, round, reply.error);
                           });
    if (!tells)
        load(wildcard, round);
}

/// In place of values that are told.
void ClientEngine::load(const QString &wildcard, quint64 round)
{
    const auto take = [this, wildcard, round](const AskingChannel::Reply &reply) {
        if (!reply.isThere)
            return;
        if (!reply.isYes())
            return refuseWatches(wildcard, round, reply.error);
        _watches.takeLoaded(wildcard, replies::objects(reply.data));
        _watches.takeTold(wildcard);
        subscribeNext();
    };
    _session.queries().ask(request(operations::LOAD_OBJECTS, {{keys::WILDCARD, wildcard}}), take);
}

void ClientEngine::refuseWatches(const QString &wildcard, quint64 round, const TrelanError &error)
{
    const QVector<WatchTable::Number> refused = _watches.refuseRound(wildcard, round);
    if (refused.isEmpty())
        return;
    const TrelanFailure failure(TrelanFailure::Refused, error.description(),
                                quint16(error.error()));
    qCWarning(CLIENT_LOG).noquote()
        << QStringLiteral("watch of \"%1\": %2").arg(wildcard, failure.toString());
    for (const WatchTable::Number number : refused) {
        const WatchEntry entry = _watchEntries.take(number);
        if (entry.mailbox)
            entry.mailbox->close();
        if (entry.whole)
            fail(entry.whole, failure);
    }
    subscribeNext();
}

void ClientEngine::unwatch(WatchTable::Number number, const Operation::Ref &operation)
{
    const WatchEntry entry = _watchEntries.take(number);
    if (entry.whole)
        fail(entry.whole, {TrelanFailure::Refused, QStringLiteral("the watch was ended")});
    const QString wildcard = _watches.contains(number) ? _watches.remove(number) : QString();
    if (!wildcard.isEmpty() && _session.isUp())
        unsubscribe(wildcard, operation);
    else if (operation)
        done(operation);
}

void ClientEngine::unsubscribe(const QString &wildcard, const Operation::Ref &operation)
{
    const auto answered = [this, operation](const AskingChannel::Reply &reply) {
        if (!operation)
            return;
        if (!reply.isThere || reply.isYes()) // a lost connection has ended the subscription, too
            done(operation);
        else
            fail(operation, failureOf(*operation, reply.error));
    };
    _session.queries().ask(request(operations::UNSUBSCRIBE, {{keys::WILDCARD, wildcard}}),
                           answered);
}

/// What this bus does not have is published again, unless it was meanwhile.
void ClientEngine::publishAgain()
{
    const QStringList names = _kept.names();
    for (const QString &name : names) {
        const auto judge = [this, name,
                            frame = _kept.frame(name)](const AskingChannel::Reply &reply) {
            const bool isLost = reply.isThere && !reply.isYes();
            if (isLost && _session.isUp() && _kept.frame(name) == frame)
                _session.queries().ask(frame, [](const AskingChannel::Reply &) {});
        };
        _session.queries().ask(request(operations::LOAD_OBJECT, {{keys::OBJECT_NAME, name}}),
                               judge);
    }
}

void ClientEngine::takeAnswer(const TrelanCommand &answer, bool isWhole)
{
    const Operation::Ref operation = _calls.value(answer.parentUid());
    if (!operation || operation->message->reciever() != answer.sender()) {
        qCDebug(CLIENT_LOG).noquote()
            << QStringLiteral("an answer of \"%1\" to \"%2\" is late, or was not asked of it")
                   .arg(answer.sender(), answer.name());
        return;
    }
    const QVariantMap params = answer.params();
    if (!isWhole)
        fail(operation, {TrelanFailure::AnswerError, QStringLiteral("the answer is no map")});
    else if (params.contains(ERROR_PARAMETER))
        fail(operation, {TrelanFailure::AnswerError, params.value(ERROR_PARAMETER).toString()});
    else
        done(operation, params);
}

void ClientEngine::serve(const QString &command, const std::shared_ptr<CallMailbox> &function)
{
    _served.insert(command, function);
}

void ClientEngine::stopServing(const QString &command)
{
    _served.remove(command);
}

void ClientEngine::takeCall(const TrelanCommand &call)
{
    const std::shared_ptr<CallMailbox> function = _served.value(call.name());
    if (function && function->isConnected()) {
        const auto open = std::make_shared<OpenCall>(call, _door, _openCalls);
        if (*_openCalls > MAX_OPEN_CALLS)
            open->answer({{ERROR_PARAMETER, QStringLiteral("too many calls wait here already")}});
        else
            function->put(TrelanCall(open));
        return;
    }
    if (function)
        _served.remove(call.name()); // its context is gone
    if (!_events.onCommand(call) && call.needAnswer())
        send(*_door,
             answerTo(call,
                      {{ERROR_PARAMETER, QStringLiteral("nobody serves \"%1\"").arg(call.name())}}),
             {});
}

} // namespace bus
