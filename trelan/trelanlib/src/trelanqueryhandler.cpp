#include "trelanqueryhandler.h"

#include "channel/channelsocket.h"
#include "channel/queryhandlerprivate.h"
#include "channel/socketwait.h"
#include "codec/publishrequest.h"
#include "codec/replies.h"
#include "trelanframe.h"
#include "values/uids.h"

#include <loghelpers.h>
#include <wirekeys.h>

#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QThread>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

namespace bus
{

using morvik::logbinary;
using morvik::loglist;
using morvik::logtab;

namespace
{

constexpr int WAIT_MS = 30000;      // for the write and for a reply's first byte
constexpr int READ_WAIT_MS = 100;   // before the third and every later read attempt
constexpr int READ_PAUSE_MS = 10;   // after every read attempt
constexpr int CLOSE_PAUSE_MS = 100; // before a connection is ended
constexpr int BYTES_PER_ATTEMPT = 100;
constexpr int MIN_READ_ATTEMPTS = 100;
constexpr int ATTEMPTS_WITHOUT_WAIT = 2;
constexpr int MAX_REMEMBERED = 512; // of a payload, in Prompt mode

const QString LIST_SEPARATOR = QStringLiteral("::");

/// The lines of what came of a payload. Only what a log shows is taken apart, since millions of
/// line feeds would take far more memory as a list than as bytes.
QStringList linesOf(const QByteArray &payload)
{
    const QString text = QString::fromLatin1(payload.constData(), payload.size());
    QStringList lines = text.left(morvik::MAX_LOG_BYTES).split(QLatin1Char('\n'));
    lines.last() += text.mid(morvik::MAX_LOG_BYTES);
    return lines;
}

/// The keys of a subscription that asks for more.
QVariantMap wanted(TrelanQueryHandler::SubscribeOptions options)
{
    QVariantMap more;
    if (options.testFlag(TrelanQueryHandler::WithNow))
        more.insert(keys::NOW, true);
    if (options.testFlag(TrelanQueryHandler::WithRemovals))
        more.insert(keys::REMOVALS, true);
    return more;
}

} // namespace

std::atomic<quint16> TrelanQueryHandler::_queryPort {TrelanQueryHandler::DEFAULT_PORT};
std::atomic<quint32> TrelanQueryHandler::_queryHost {
    QHostAddress(QHostAddress::LocalHost).toIPv4Address()};

TrelanQueryHandler::TrelanQueryHandler(const QString &clientName, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(*this, clientName))
{}

TrelanQueryHandler::~TrelanQueryHandler()
{
    close();
}

quint32 TrelanQueryHandler::queryHost()
{
    return _queryHost;
}

void TrelanQueryHandler::setQueryHost(quint32 host)
{
    _queryHost = host;
}

quint16 TrelanQueryHandler::queryPort()
{
    return _queryPort;
}

void TrelanQueryHandler::setQueryPort(const quint16 &port)
{
    _queryPort = port;
}

QString TrelanQueryHandler::clientName() const
{
    return d->_clientName;
}

bool TrelanQueryHandler::handshaked() const
{
    return d->_handshaked;
}

bool TrelanQueryHandler::isOpen() const
{
    return d->isConnected() && d->_handshaked;
}

TrelanQueryHandler::Failure TrelanQueryHandler::lastFailure() const
{
    return d->_lastFailure;
}

TrelanError TrelanQueryHandler::lastError() const
{
    return d->_lastError;
}

bool TrelanQueryHandler::open()
{
    d->resetFailure();
    if (d->settings().queryPort() == 0 || !d->_socket)
        return d->fail(NotOpen);
    return isOpen() || d->open();
}

void TrelanQueryHandler::close()
{
    d->close();
}

bool TrelanQueryHandler::rmPersistent(const QStringList &names)
{
    return d->request(d->removeFrame(names));
}

bool TrelanQueryHandler::publish(TrelanObject object)
{
    return d->request(d->publishFrame(object));
}

bool TrelanQueryHandler::publish(QList<TrelanObject> objects)
{
    return d->publish(objects);
}

bool TrelanQueryHandler::subscribe(const QString &wildCard)
{
    return d->request(d->subscribeFrame(wildCard, {}));
}

bool TrelanQueryHandler::subscribe(const QStringList &wildCards)
{
    return d->request(d->subscribeFrame(wildCards, {}));
}

bool TrelanQueryHandler::unsubscribe(const QString &wildCard)
{
    return d->request(d->unsubscribeFrame(wildCard));
}

bool TrelanQueryHandler::unsubscribe(const QStringList &wildCards)
{
    return d->request(d->unsubscribeFrame(wildCards));
}

bool TrelanQueryHandler::loadObject(const QString &name, TrelanObject &object)
{
    QVariantMap answer;
    if (!d->request(d->loadFrame(name), answer))
        return false;
    object = TrelanObject::fromVariantMap(answer);
    return true;
}

bool TrelanQueryHandler::loadObjects(const QString &wildCard, QMap<QString, TrelanObject> &objects)
{
    QVariantMap answer;
    if (!d->request(d->loadAllFrame(wildCard), answer))
        return false;
    const QMap<QString, TrelanObject> loaded = replies::objects(answer);
    for (auto entry = loaded.cbegin(); entry != loaded.cend(); ++entry)
        objects.insert(entry.key(), entry.value());
    return true;
}

bool TrelanQueryHandler::sendMessage(TrelanMessage msg)
{
    return d->request(d->messageFrame(msg));
}

bool TrelanQueryHandler::sendCommand(TrelanCommand cmd)
{
    const QByteArray frame = d->commandFrame(cmd);
    return !frame.isEmpty() && d->request(frame);
}

void TrelanQueryHandler::socketConnected()
{
    // open() sends the handshake itself, since it has to wait for the answer.
}

void TrelanQueryHandler::socketDisconnected()
{
    emit busDisconnected();
}

void TrelanQueryHandler::socketError(QAbstractSocket::SocketError error)
{
    // Every timed wait ends in this one when nothing came, and says so by its result.
    if (!d->_socket || error == QAbstractSocket::SocketTimeoutError)
        return;
    qWarning().noquote() << error << d->_socket->errorString() << QDateTime::currentDateTime();
}

bool TrelanQueryHandler::handshake()
{
    return d->handshake();
}

bool TrelanQueryHandler::request(QVariantMap &answer, QString operation, QVariantMap data)
{
    return d->request(d->frameOf(operation, data), answer);
}

bool TrelanQueryHandler::request(QString operation, QVariantMap data)
{
    return d->request(d->frameOf(operation, data));
}

bool TrelanQueryHandler::processReply(QString operation, QVariantMap data, QVariantMap result)
{
    Q_UNUSED(data)
    return d->judge(operation, result);
}

bool TrelanQueryHandler::subscribeNow(const QString &wildCard)
{
    return subscribeWith(wildCard, WithNow);
}

bool TrelanQueryHandler::subscribeNow(const QStringList &wildCards)
{
    return subscribeWith(wildCards, WithNow);
}

bool TrelanQueryHandler::subscribeWith(const QString &wildCard, SubscribeOptions options)
{
    return d->request(d->subscribeFrame(wildCard, options));
}

bool TrelanQueryHandler::subscribeWith(const QStringList &wildCards, SubscribeOptions options)
{
    return d->request(d->subscribeFrame(wildCards, options));
}

void TrelanQueryHandler::setChannelSettings(const TrelanChannelSettings &settings)
{
    d->_ownSettings = settings;
}

TrelanChannelSettings TrelanQueryHandler::channelSettings() const
{
    return d->settings();
}

void TrelanQueryHandler::setAsksFeatures(bool asks)
{
    d->_asksFeatures = asks;
}

QStringList TrelanQueryHandler::features() const
{
    return d->_features;
}

TrelanQueryHandler::Private::Private(TrelanQueryHandler &handler, const QString &clientName)
    : _clientName(clientName)
    , _handler(handler)
    , _mode(TrelanTransport::mode())
    , _prompt(_socket, _connections, handler)
{
    makeSocket();
}

void TrelanQueryHandler::Private::makeSocket()
{
    _socket = channelsocket::make(_handler);
}

QByteArray TrelanQueryHandler::Private::frameOf(const QString &operation,
                                                const QVariantMap &data) const
{
    return TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(operation, data),
                               _coding);
}

QByteArray TrelanQueryHandler::Private::publishFrame(TrelanObject object) const
{
    object.setPublisher(_clientName);
    return requests::publish(std::move(object), _coding,
                             isPrompt() ? requests::Unique : requests::Generated);
}

QByteArray TrelanQueryHandler::Private::messageFrame(TrelanMessage message) const
{
    if (message.uid().isEmpty())
        message.setUid(isPrompt() ? uids::unique(message) : message.genUid());
    message.setSender(_clientName);
    return frameOf(operations::SEND_MESSAGE, message.toVariantMap());
}

/// A command without a receiver, or one that does not become a message, goes to everybody as an
/// object.
QByteArray TrelanQueryHandler::Private::commandFrame(TrelanCommand command) const
{
    // The conversions below would fill in an id that may repeat one.
    if (isPrompt() && command.uid().isEmpty())
        command.setUid(uids::unique(command));
    TrelanMessage message;
    if (command.hasDestination() && command.toTrelanMessage(message))
        return messageFrame(message);
    TrelanObject object;
    return command.toTrelanObject(object) ? publishFrame(object) : QByteArray();
}

QByteArray TrelanQueryHandler::Private::removeFrame(const QStringList &names) const
{
    QVariantList objects;
    for (const QString &name : names)
        objects.append(name.trimmed());
    return frameOf(operations::REMOVE, {{keys::OBJECTS, objects}});
}

QByteArray TrelanQueryHandler::Private::loadAllFrame(const QString &wildcard) const
{
    return frameOf(operations::LOAD_OBJECTS, {{keys::WILDCARD, wildcard}});
}

QByteArray TrelanQueryHandler::Private::loadFrame(const QString &name) const
{
    return frameOf(operations::LOAD_OBJECT, {{keys::OBJECT_NAME, name}});
}

QByteArray TrelanQueryHandler::Private::subscribeFrame(const QString &wildcard,
                                                       SubscribeOptions options) const
{
    QVariantMap data = wanted(options);
    data.insert(keys::WILDCARD, wildcard);
    return frameOf(operations::SUBSCRIBE, data);
}

QByteArray TrelanQueryHandler::Private::subscribeFrame(const QStringList &wildcards,
                                                       SubscribeOptions options) const
{
    QVariantMap data = wanted(options);
    data.insert(keys::WILDCARDS, wildcards.join(LIST_SEPARATOR));
    return frameOf(operations::SUBSCRIBE, data);
}

QByteArray TrelanQueryHandler::Private::unsubscribeFrame(const QString &wildcard) const
{
    return frameOf(operations::UNSUBSCRIBE, {{keys::WILDCARD, wildcard}});
}

QByteArray TrelanQueryHandler::Private::unsubscribeFrame(const QStringList &wildcards) const
{
    return frameOf(operations::UNSUBSCRIBE, {{keys::WILDCARDS, wildcards.join(LIST_SEPARATOR)}});
}

bool TrelanQueryHandler::Private::request(const QByteArray &frame, QVariantMap &answer)
{
    if (!isPrompt())
        return pacedRequest(frame, answer);
    bool isDone = false;
    const auto take = [&](bool done, const QVariantMap &reply) {
        isDone = done;
        if (done)
            answer = reply;
    };
    _prompt.request(frame, judgeLater(take));
    return isDone;
}

bool TrelanQueryHandler::Private::request(const QByteArray &frame)
{
    QVariantMap ignored;
    return request(frame, ignored);
}

void TrelanQueryHandler::Private::requestLater(const QByteArray &frame, const Done &done)
{
    if (isPrompt()) {
        _prompt.askLater(frame, judgeLater(done));
        return;
    }
    QVariantMap answer;
    const bool isDone = pacedRequest(frame, answer);
    done(isDone, answer);
}

void TrelanQueryHandler::Private::takeReplies()
{
    _prompt.takeReplies();
}

bool TrelanQueryHandler::Private::publish(const QList<TrelanObject> &objects)
{
    Failure failure = None;
    TrelanError error;
    const Done note = [&](bool done, const QVariantMap & /*answer*/) {
        if (!done) {
            failure = _lastFailure;
            error = _lastError;
        }
    };
    const ConnectionCount::Mark here = _connections.mark();
    for (const TrelanObject &object : objects) {
        if (!isPrompt()) {
            note(request(publishFrame(object)), {});
        } else if (!here.isOver() && !wait::isInterrupted()) {
            _prompt.ask(publishFrame(object), judgeLater(note));
        } else {
            _prompt.takeReplies();
            note(fail(NotOpen), {});
        }
    }
    _prompt.takeReplies();
    _lastFailure = failure;
    _lastError = error;
    return failure == None;
}

/// A QTcpSocket stays open as a device after its connection is gone, and while a close() is still
/// sending what was left, so the state decides.
bool TrelanQueryHandler::Private::isConnected() const
{
    return _socket && _socket->isOpen() && _socket->state() == QAbstractSocket::ConnectedState;
}

TrelanChannelSettings TrelanQueryHandler::Private::settings() const
{
    return _ownSettings.value_or(TrelanChannelSettings::ofProcess());
}

bool TrelanQueryHandler::Private::open()
{
    _namesFeatures = _asksFeatures;
    if (openOnce())
        return true;
    if (!_isKeyRefused)
        return false;
    _namesFeatures = false;
    resetFailure();
    return openOnce();
}

bool TrelanQueryHandler::Private::openOnce()
{
    _isKeyRefused = false;
    _features.clear();
    _connections.next();
    const ConnectionCount::Mark here = _connections.mark();
    const TrelanChannelSettings now = settings();
    _mode = now.mode();
    _coding = now.coding();
    _plainYes.clear();
    // Without settings of its own the channel takes that of the process whenever it waits.
    const auto patience = _ownSettings ? std::optional<int>(now.patience()) : std::nullopt;
    _prompt.begin(now.maxPayload(), patience);
    const bool isAccepted = connectToBus(now) && !here.isOver() && _handler.handshake();
    if (here.isOver()) {
        // Refused, or a slot that was told of a loss has closed the channel or opened it again.
        const bool isOpen = isConnected() && _handshaked;
        if (isOpen)
            resetFailure();
        else if (_lastFailure == None)
            fail(NotOpen);
        return isOpen;
    }
    if (isAccepted && _handshaked) {
        emit _handler.kelbusConnected();
        return true;
    }
    if (_lastFailure == None)
        fail(Framing); // an answer, but not to the handshake
    close();
    return false;
}

void TrelanQueryHandler::Private::close()
{
    if (!_socket)
        return;
    _connections.next();
    _socket->blockSignals(true);
    if (!isPrompt())
        QThread::msleep(CLOSE_PAUSE_MS);
    _socket->disconnectFromHost();
    _handshaked = false;
}

bool TrelanQueryHandler::Private::handshake()
{
    QVariantMap data {{keys::CLIENT_NAME, _clientName}};
    if (_namesFeatures)
        data.insert(keys::FEATURES, true);
    QVariantMap answer;
    if (!request(frameOf(operations::HANDSHAKE, data), answer))
        return false;
    if (!_namesFeatures)
        return true;
    _features = answer.value(keys::FEATURES).toStringList();
    if (answer.value(keys::CHANNEL, QString(channels::QUERY)) == QString(channels::QUERY))
        return true;
    close();
    _lastError = TrelanError(TrelanError::UnsupportedRequest,
                             QStringLiteral("the port is that of the message channel"));
    return fail(Refused);
}

void TrelanQueryHandler::Private::resetFailure()
{
    _lastFailure = None;
    _lastError = TrelanError();
}

bool TrelanQueryHandler::Private::fail(Failure failure)
{
    _lastFailure = failure;
    return false;
}

bool TrelanQueryHandler::Private::judge(const QString &operation, const QVariantMap &result)
{
    const TrelanError error = replies::error(result);
    const quint16 code = error.error();
    if (code != 0) {
        fail(Refused);
        _lastError = error;
    }

    if (operation == operations::HANDSHAKE) {
        _handshaked = code == 0;
        _isKeyRefused = _namesFeatures && !_handshaked;
        if (!_handshaked)
            close();
        return _handshaked;
    }
    if (code == 0)
        return true;
    qCritical().noquote().nospace() << code << logtab << error.description();
    return false;
}

bool TrelanQueryHandler::Private::isPrompt() const
{
    return _mode == TrelanTransport::Prompt;
}

bool TrelanQueryHandler::Private::connectToBus(const TrelanChannelSettings &settings)
{
    if (!channelsocket::end(*_socket, _handler.sender()))
        makeSocket();
    _handshaked = false; // an earlier handshake says nothing about this connection
    const bool connected = channelsocket::connectToBus(*_socket, settings, settings.queryPort());
    if (connected && isPrompt())
        _socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    return connected || fail(NotOpen);
}

/// What did not come is late or wrong only as long as there is somebody to send it.
bool TrelanQueryHandler::Private::failUnlessLost(Failure failure,
                                                 const ConnectionCount::Mark &connection)
{
    return fail(isConnected() && !connection.isOver() ? failure : NotOpen);
}

/// Ends a connection on which a late reply would be taken for the next one. open() ends one that
/// is not accepted yet by itself.
bool TrelanQueryHandler::Private::breakOff(Failure failure)
{
    if (_handshaked && _socket) {
        _prompt.forget();
        _socket->abort();
    }
    return fail(failure); // last: a slot that is told may have asked for something
}

bool TrelanQueryHandler::Private::pacedRequest(const QByteArray &frame, QVariantMap &answer)
{
    resetFailure();
    // The handshake comes this way too, so that being handshaked is no condition here.
    if (!isConnected())
        return fail(NotOpen);
    // Writing and waiting may notice that the connection is lost, and a slot that is told may open
    // the channel again: that connection owes no reply.
    const ConnectionCount::Mark here = _connections.mark();
    const qint64 staleBytes = _socket->bytesAvailable();
    _socket->write(frame);
    _socket->flush();
    if (!here.isOver() && isConnected())
        wait::bytesWritten(*_socket, here, WAIT_MS);
    return waitForReply(staleBytes, here) && readReply(answer, here);
}

bool TrelanQueryHandler::Private::waitForReply(qint64 staleBytes,
                                               const ConnectionCount::Mark &connection)
{
    if (connection.isOver())
        return fail(NotOpen);
    // While a large request is being written the reply may arrive, and waiting for the write then
    // takes it off the wire: waiting for it again would wait for nothing. Bytes that were there
    // before the request are not its reply.
    const bool arrived = _socket && _socket->bytesAvailable() > staleBytes;
    const bool inTime = arrived || (_socket && wait::readyRead(*_socket, connection, WAIT_MS));
    if (!inTime || connection.isOver()) {
        qCritical().noquote() << TrelanQueryHandler::tr("Socket wait for ready read error");
        return failUnlessLost(Timeout, connection);
    }
    if (!_socket || _socket->bytesAvailable() == 0) {
        qCritical().noquote() << TrelanQueryHandler::tr("Socket is empty");
        return failUnlessLost(Framing, connection);
    }
    return true;
}

bool TrelanQueryHandler::Private::readReply(QVariantMap &answer,
                                            const ConnectionCount::Mark &connection)
{
    const QString header =
        TrelanFrame::lineText(_socket->readLine(TrelanFrame::MAX_LINE_LENGTH + 1));
    const QString sizeText =
        TrelanFrame::lineText(_socket->readLine(TrelanFrame::MAX_LINE_LENGTH + 1));
    if (header != TrelanFrame::headerWord(TrelanFrame::Reply)) {
        qCritical().noquote().nospace()
            << TrelanQueryHandler::tr("Incorrect reply header: ") << header;
        return fail(Framing);
    }

    const int size = sizeText.toInt(nullptr, 10); // no number is size 0 on this channel
    const QByteArray payload = readPayload(size, connection);
    if (payload.size() != size) {
        qCritical().noquote() << TrelanQueryHandler::tr("Incorrect reply data size %1 != %2")
                                     .arg(payload.size())
                                     .arg(size)
                              << loglist(linesOf(payload));
        return failUnlessLost(Framing, connection);
    }
    return takePayload(payload, answer);
}

/// Reads at most \a size bytes, and fewer when the attempts for that size are used up or the
/// connection is gone. The announced size by itself takes no memory.
QByteArray TrelanQueryHandler::Private::readPayload(int size,
                                                    const ConnectionCount::Mark &connection) const
{
    const int attempts = qMax(MIN_READ_ATTEMPTS, size / BYTES_PER_ATTEMPT + 1);
    QByteArray payload;
    for (int attempt = 0; payload.size() < size && attempt < attempts; ++attempt) {
        if (attempt >= ATTEMPTS_WITHOUT_WAIT)
            _socket->waitForReadyRead(READ_WAIT_MS);
        if (connection.isOver())
            break;
        const qint64 arrived = _socket->bytesAvailable();
        if (arrived > 0)
            payload.append(_socket->read(qMin<qint64>(size - payload.size(), arrived)));
        QThread::msleep(READ_PAUSE_MS);
        if (wait::isInterrupted() || (arrived == 0 && !isConnected()))
            break;
    }
    return payload;
}

PromptQuery::Done TrelanQueryHandler::Private::judgeLater(const Done &done)
{
    return [this, done](const PromptQuery::Result &result) {
        QVariantMap answer;
        const bool isDone = takeResult(result, answer);
        done(isDone, answer);
    };
}

bool TrelanQueryHandler::Private::takeResult(const PromptQuery::Result &result, QVariantMap &answer)
{
    resetFailure();
    switch (result.outcome) {
    case PromptQuery::Replied:
        return takePayload(result.payload, answer) ||
               (_lastFailure == Framing && breakOff(Framing));
    case PromptQuery::Lost:
        return fail(NotOpen);
    case PromptQuery::TimedOut:
        qCritical().noquote() << TrelanQueryHandler::tr("Socket wait for ready read error");
        return breakOff(Timeout);
    case PromptQuery::Malformed:
        qCritical().noquote().nospace()
            << TrelanQueryHandler::tr("Incorrect reply header: ") << result.fault;
        return breakOff(Framing);
    case PromptQuery::Unasked:
        qCritical().noquote() << TrelanQueryHandler::tr("A reply that nobody has asked for");
        return breakOff(Framing);
    }
    return false;
}

bool TrelanQueryHandler::Private::takePayload(const QByteArray &payload, QVariantMap &answer)
{
    if (!_plainYes.isEmpty() && payload == _plainYes) {
        answer.clear();
        return true;
    }
    const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(payload);
    if (decoded.fault != TrelanFrame::NoFault) {
        qWarning().noquote().nospace()
            << decoded.errorText << logtab << logbinary(decoded.json, "UTF-8");
        return fail(Framing);
    }

    const QVariantMap data = decoded.envelope.value(keys::DATA).toMap();
    const QVariantMap result = decoded.envelope.value(keys::RESULT).toMap();
    const QString operation = decoded.envelope.value(keys::OPERATION).toString();
    if (!judge(operation, result))
        return false;
    answer = data;
    // Most replies say nothing but yes, in the same bytes each time.
    if (isPrompt() && data.isEmpty() && operation != operations::HANDSHAKE)
        _plainYes = payload.size() <= MAX_REMEMBERED ? payload : QByteArray();
    return true;
}

} // namespace bus
