#include "trelanclient.h"

#include "client/callmailbox.h"
#include "client/clientdoor.h"
#include "client/clientengine.h"
#include "client/clientlog.h"
#include "client/clientthread.h"
#include "client/opencall.h"
#include "client/watchmailbox.h"
#include "codec/publishrequest.h"
#include "codec/replies.h"
#include "trelanframe.h"
#include "values/uids.h"

#include <wirekeys.h>

#include <QtCore/QMetaMethod>

#include <atomic>

namespace bus
{

namespace
{

constexpr int LAST_WAIT_MS = 200;

/// An operation that is one request.
Operation::Ref makeRequest(const QString &word, const QVariantMap &data,
                           const TrelanOptions &options)
{
    Operation::Ref operation = ClientEngine::makeOperation(options);
    operation->frame = TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(word, data),
                                           TrelanTransport::Light);
    operation->cost = operation->frame.size();
    return operation;
}

} // namespace

class TrelanClient::Private : public ClientEvents
{
public:
    Private(TrelanClient &client, const QString &clientName, const TrelanClientSettings &settings)
        : _clientName(clientName)
        , _door(std::make_shared<ClientDoor>(settings))
        , _client(client)
        , _thread(clientName, settings, _door, *this)
    {}

    void onState(const TrelanConnectionState &state) override { emit _client.stateChanged(state); }
    void onMessage(const TrelanMessage &message) override { emit _client.messageReceived(message); }
    bool onCommand(const TrelanCommand &command) override
    {
        static const QMetaMethod RECEIVED = QMetaMethod::fromSignal(&TrelanClient::commandReceived);
        if (!_client.isSignalConnected(RECEIVED))
            return false;
        emit _client.commandReceived(command);
        return true;
    }

    TrelanPending begin(const Operation::Ref &operation)
    {
        _door->post(operation, [operation](ClientEngine &engine) { engine.begin(operation); });
        return operation->state->pending();
    }

    const QString _clientName;
    const std::shared_ptr<ClientDoor> _door;
    std::atomic<quint64> _lastWatch {0};

private:
    TrelanClient &_client;

public:
    ClientThread _thread; // last: it uses everything above
};

TrelanWatch::TrelanWatch(const TrelanPending &pending, quint64 number,
                         const std::weak_ptr<WatchMailbox> &mailbox)
    : TrelanPending(pending)
    , _number(number)
    , _mailbox(mailbox)
{}

TrelanClient::TrelanClient(const QString &clientName, QObject *parent)
    : TrelanClient(clientName, TrelanClientSettings(), parent)
{}

TrelanClient::TrelanClient(const QString &clientName, const TrelanClientSettings &settings,
                           QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(*this, clientName, settings))
{
    d->_thread.start();
}

TrelanClient::~TrelanClient()
{
    d->_door->post([](ClientEngine &engine) { engine.reportIdle(); });
    d->_door->waitForIdle(LAST_WAIT_MS);
    d->_thread.stop();
}

QString TrelanClient::clientName() const
{
    return d->_clientName;
}

TrelanConnectionState TrelanClient::state() const
{
    return d->_door->state();
}

bool TrelanClient::waitForConnected(int milliseconds) const
{
    return d->_door->waitForConnected(milliseconds);
}

TrelanPending TrelanClient::publish(const QString &name, const QVariantMap &content,
                                    const TrelanOptions &options)
{
    TrelanObject object;
    object.setName(name);
    object.setContent(content);
    return publish(object, options);
}

TrelanPending TrelanClient::publish(const TrelanObject &object, const TrelanOptions &options)
{
    const Operation::Ref operation = ClientEngine::makeOperation(options);
    TrelanObject published = object;
    published.setPublisher(d->_clientName);
    if (published.uid().isEmpty())
        published.setUid(uids::random());
    operation->frame =
        requests::publish(std::move(published), TrelanTransport::Light, requests::Unique);
    operation->cost = operation->frame.size();
    if (object.isStored())
        operation->storedName = object.name();
    return d->begin(operation);
}

TrelanPending TrelanClient::remove(const QStringList &names, const TrelanOptions &options)
{
    QStringList removed;
    for (const QString &name : names)
        removed.append(name.trimmed());
    const Operation::Ref operation =
        makeRequest(operations::REMOVE, {{keys::OBJECTS, removed}}, options);
    operation->removedNames = removed;
    return d->begin(operation);
}

TrelanPending TrelanClient::remove(const QString &name, const TrelanOptions &options)
{
    return remove(QStringList {name}, options);
}

TrelanReply<TrelanObject> TrelanClient::load(const QString &name, const TrelanOptions &options)
{
    const Operation::Ref operation =
        makeRequest(operations::LOAD_OBJECT, {{keys::OBJECT_NAME, name}}, options);
    operation->result = [](const QVariantMap &data) {
        return QVariant::fromValue(TrelanObject::fromVariantMap(data));
    };
    d->begin(operation);
    return operation->state->reply<TrelanObject>();
}

TrelanReply<TrelanObjects> TrelanClient::loadAll(const QString &wildcard,
                                                 const TrelanOptions &options)
{
    const Operation::Ref operation =
        makeRequest(operations::LOAD_OBJECTS, {{keys::WILDCARD, wildcard}}, options);
    operation->result = [](const QVariantMap &data) {
        return QVariant::fromValue(replies::objects(data));
    };
    d->begin(operation);
    return operation->state->reply<TrelanObjects>();
}

TrelanReply<QVariantList> TrelanClient::clients(const TrelanOptions &options)
{
    const Operation::Ref operation = makeRequest(operations::CLIENTS, {}, options);
    operation->result = [](const QVariantMap &data) {
        return QVariant(data.value(keys::CLIENTS).toList());
    };
    d->begin(operation);
    return operation->state->reply<QVariantList>();
}

TrelanPending TrelanClient::send(const QString &receiver, const QString &text,
                                 const TrelanOptions &options)
{
    TrelanMessage message;
    message.setReciever(receiver);
    message.setMessage(text);
    return send(message, options);
}

TrelanPending TrelanClient::send(const TrelanMessage &message, const TrelanOptions &options)
{
    TrelanMessage sent = message;
    sent.setSender(d->_clientName);
    return ClientEngine::send(*d->_door, sent, options)->state->pending();
}

TrelanReply<QVariantMap> TrelanClient::call(const QString &receiver, const QString &command,
                                            const QVariantMap &params, const TrelanOptions &options)
{
    TrelanCommand call;
    call.setReciever(receiver);
    call.setName(command);
    call.setParams(params);
    call.setNeedAnswer(true);
    const Operation::Ref operation = ClientEngine::makeCall(*d->_door, call, options);
    return operation->state->reply<QVariantMap>();
}

TrelanWatch TrelanClient::watchObjects(const QString &wildcard, const QObject *context,
                                       const ObjectFunction &changed, const NameFunction &removed)
{
    const quint64 number = ++d->_lastWatch;
    const auto mailbox = std::make_shared<WatchMailbox>();
    const auto unwatch = [number, door = std::weak_ptr(d->_door)] {
        if (const std::shared_ptr<ClientDoor> open = door.lock())
            open->post([number](ClientEngine &engine) { engine.unwatch(number, nullptr); });
    };
    mailbox->connectTo(context, changed, removed, unwatch);
    const Operation::Ref operation = ClientEngine::makeOperation({});
    d->_door->post(operation, [number, wildcard, mailbox, operation](ClientEngine &engine) {
        engine.watch(number, wildcard, mailbox, operation);
    });
    return {operation->state->pending(), number, mailbox};
}

TrelanPending TrelanClient::unwatch(const TrelanWatch &watch)
{
    if (const std::shared_ptr<WatchMailbox> mailbox = watch._mailbox.lock())
        mailbox->close();
    const Operation::Ref operation = ClientEngine::makeOperation({});
    d->_door->post(operation, [number = watch._number, operation](ClientEngine &engine) {
        engine.unwatch(number, operation);
    });
    return operation->state->pending();
}

void TrelanClient::serveCalls(const QString &command, const QObject *context,
                              const CallFunction &function)
{
    const auto mailbox = std::make_shared<CallMailbox>();
    mailbox->connectTo(context, function);
    d->_door->post([command, mailbox](ClientEngine &engine) { engine.serve(command, mailbox); });
}

void TrelanClient::stopServing(const QString &command)
{
    d->_door->post([command](ClientEngine &engine) { engine.stopServing(command); });
}

TrelanPending TrelanClient::answer(const TrelanCommand &call, const QVariantMap &result,
                                   const TrelanOptions &options)
{
    return send(answerTo(call, result), options);
}

TrelanPending TrelanClient::refuse(const QString &fault)
{
    return PendingState::makeFailed(
               {TrelanFailure::Refused, fault, TrelanError::IncorrectRequestData})
        ->pending();
}

void TrelanClient::warnOfMisfit(const TrelanObject &object, const QString &fault)
{
    qCWarning(CLIENT_LOG).noquote()
        << QStringLiteral("the content of \"%1\" does not fit: %2").arg(object.name(), fault);
}

} // namespace bus
