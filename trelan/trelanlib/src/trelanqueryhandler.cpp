#include "trelanqueryhandler.h"

#include "channel/socketwait.h"
#include "codec/publishrequest.h"
#include "trelanframe.h"
#include "trelanframereader.h"
#include "values/uids.h"

#include <jsonwriter.h>
#include <loghelpers.h>

#include <QtCore/QDateTime>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QDebug>
#include <QtCore/QQueue>
#include <QtCore/QThread>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

#include <utility>

namespace bus
{

using morvik::logbinary;
using morvik::loglist;
using morvik::logtab;

namespace
{

constexpr int WAIT_MS = 30000;      // for the connection, the write and a reply's first byte
constexpr int READ_WAIT_MS = 100;   // before the third and every later read attempt
constexpr int READ_PAUSE_MS = 10;   // after every read attempt
constexpr int CLOSE_PAUSE_MS = 100; // before a connection is ended
constexpr int BYTES_PER_ATTEMPT = 100;
constexpr int MIN_READ_ATTEMPTS = 100;
constexpr int ATTEMPTS_WITHOUT_WAIT = 2;

// In Prompt mode: what is sent ahead of its replies, so that neither side waits for the other to
// read.
constexpr int MAX_AHEAD = 64;
constexpr qint64 MAX_BYTES_AHEAD = 256 * 1024;
constexpr int MAX_REMEMBERED = 512;   // of a reply
constexpr int MAX_UNSENT = 16 * 1024; // of small requests, which leave together

const QString OPERATION_HANDSHAKE = QStringLiteral("handshake");
const QString OPERATION_PUBLISH = QStringLiteral("pub");
const QString OPERATION_LOAD = QStringLiteral("loadObject");
const QString KEY_NAME = QStringLiteral("nm"); // of what is loaded
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

} // namespace

std::atomic<quint16> TrelanQueryHandler::_queryPort {TrelanQueryHandler::DEFAULT_PORT};
std::atomic<quint32> TrelanQueryHandler::_queryHost {
    QHostAddress(QHostAddress::LocalHost).toIPv4Address()};

TrelanQueryHandler::TrelanQueryHandler(const QString &clientName, QObject *parent)
    : QObject(parent)
    , _socket(new QTcpSocket(this))
    , _clientName(clientName)
    , _prompt(TrelanTransport::mode() == TrelanTransport::Prompt)
{
    connect(_socket, SIGNAL(connected()), this, SLOT(socketConnected()));
    connect(_socket, SIGNAL(disconnected()), this, SLOT(socketDisconnected()));
    connect(_socket, SIGNAL(error(QAbstractSocket::SocketError)), this,
            SLOT(socketError(QAbstractSocket::SocketError)));
}

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
    return _clientName;
}

bool TrelanQueryHandler::handshaked() const
{
    return _handshaked;
}

bool TrelanQueryHandler::isOpen() const
{
    return canRequest() && _handshaked;
}

TrelanQueryHandler::Failure TrelanQueryHandler::lastFailure() const
{
    return _lastFailure;
}

TrelanError TrelanQueryHandler::lastError() const
{
    return _lastError;
}

bool TrelanQueryHandler::open()
{
    resetFailure();
    if (queryPort() == 0 || !_socket)
        return fail(NotOpen);
    if (isOpen())
        return true;

    ++_connection;
    _unsent.clear();
    _lastDone.clear();
    _prompt = TrelanTransport::mode() == TrelanTransport::Prompt;
    _coding = TrelanTransport::coding();
    _reader.reset(_prompt ? new TrelanFrameReader(TrelanTransport::maxPayload()) : nullptr);
    if (!connectToBus()) {
        close();
        return fail(NotOpen);
    }
    if (handshake() && _handshaked) {
        emit kelbusConnected();
        return true;
    }
    if (_lastFailure == None)
        fail(Framing); // an answer, but not to the handshake
    close();
    return false;
}

void TrelanQueryHandler::close()
{
    if (!_socket)
        return;
    ++_connection;
    _socket->blockSignals(true);
    if (!_prompt)
        QThread::msleep(CLOSE_PAUSE_MS);
    _socket->disconnectFromHost();
    _handshaked = false;
}

bool TrelanQueryHandler::rmPersistent(const QStringList &names)
{
    QVariantList objects;
    for (const QString &name : names)
        objects.append(name.trimmed());
    return request(QStringLiteral("rm"), {{QStringLiteral("objects"), objects}});
}

bool TrelanQueryHandler::publish(TrelanObject object)
{
    const json::Keep keep; // of the content, which the id is made of, too
    object = completed(std::move(object));
    return _reader ? promptRequest(publishFrame(object))
                   : request(OPERATION_PUBLISH, object.toVariantMap());
}

bool TrelanQueryHandler::publish(QList<TrelanObject> objects)
{
    if (_reader)
        return publishAhead(objects);
    Failure failure = None;
    TrelanError error;
    for (const TrelanObject &object : std::as_const(objects)) {
        if (!publish(object)) {
            failure = _lastFailure;
            error = _lastError;
        }
    }
    _lastFailure = failure;
    _lastError = error;
    return failure == None;
}

bool TrelanQueryHandler::subscribe(const QString &wildCard)
{
    return request(QStringLiteral("sub"), {{QStringLiteral("wc"), wildCard}});
}

bool TrelanQueryHandler::subscribe(const QStringList &wildCards)
{
    return request(QStringLiteral("sub"),
                   {{QStringLiteral("wcs"), wildCards.join(LIST_SEPARATOR)}});
}

bool TrelanQueryHandler::subscribeNow(const QString &wildCard)
{
    return request(QStringLiteral("sub"),
                   {{QStringLiteral("wc"), wildCard}, {QStringLiteral("now"), true}});
}

bool TrelanQueryHandler::subscribeNow(const QStringList &wildCards)
{
    return request(QStringLiteral("sub"), {{QStringLiteral("wcs"), wildCards.join(LIST_SEPARATOR)},
                                           {QStringLiteral("now"), true}});
}

bool TrelanQueryHandler::unsubscribe(const QString &wildCard)
{
    return request(QStringLiteral("unsub"), {{QStringLiteral("wc"), wildCard}});
}

bool TrelanQueryHandler::unsubscribe(const QStringList &wildCards)
{
    return request(QStringLiteral("unsub"),
                   {{QStringLiteral("wcs"), wildCards.join(LIST_SEPARATOR)}});
}

bool TrelanQueryHandler::loadObject(const QString &name, TrelanObject &object)
{
    QVariantMap answer;
    if (!request(answer, OPERATION_LOAD, {{KEY_NAME, name}}))
        return false;
    object = TrelanObject::fromVariantMap(answer);
    return true;
}

bool TrelanQueryHandler::loadObjects(const QString &wildCard, QMap<QString, TrelanObject> &objects)
{
    QVariantMap answer;
    if (!request(answer, QStringLiteral("loadObjects"), {{QStringLiteral("wc"), wildCard}}))
        return false;
    for (auto entry = answer.cbegin(); entry != answer.cend(); ++entry)
        objects.insert(entry.key(), TrelanObject::fromVariantMap(entry.value().toMap()));
    return true;
}

bool TrelanQueryHandler::sendMessage(TrelanMessage msg)
{
    if (msg.uid().isEmpty())
        msg.setUid(_reader ? uids::unique(msg) : msg.genUid());
    msg.setSender(_clientName);
    return request(QStringLiteral("sendMessage"), msg.toVariantMap());
}

bool TrelanQueryHandler::sendCommand(TrelanCommand cmd)
{
    if (_reader && cmd.uid().isEmpty()) // making a message of it would fill in one that may repeat
        cmd.setUid(uids::unique(cmd));
    TrelanMessage message;
    if (cmd.hasDestination() && cmd.toTrelanMessage(message))
        return sendMessage(message);
    TrelanObject object;
    if (cmd.toTrelanObject(object))
        return publish(object);
    return false;
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
    if (!_socket || error == QAbstractSocket::SocketTimeoutError)
        return;
    qWarning().noquote() << error << _socket->errorString() << QDateTime::currentDateTime();
}

bool TrelanQueryHandler::handshake()
{
    QVariantMap ignored;
    return request(ignored, OPERATION_HANDSHAKE, {{QStringLiteral("name"), _clientName}});
}

bool TrelanQueryHandler::request(QVariantMap &answer, QString operation, QVariantMap data)
{
    if (_reader)
        return promptRequest(frameOf(operation, data), answer);
    resetFailure();
    // The handshake comes this way too, so that being handshaked is no condition here.
    if (!canRequest())
        return fail(NotOpen);
    const qint64 staleBytes = _socket->bytesAvailable();
    sendRequest(operation, data);
    return waitForReply(staleBytes) && readReply(answer);
}

bool TrelanQueryHandler::request(QString operation, QVariantMap data)
{
    if (_reader)
        return promptRequest(frameOf(operation, data));
    QVariantMap ignored;
    return request(ignored, std::move(operation), std::move(data));
}

bool TrelanQueryHandler::processReply(QString operation, QVariantMap data, QVariantMap result)
{
    Q_UNUSED(data)
    const quint16 code = TrelanFrame::replyCode(result);
    const QString description = result.value(QStringLiteral("description")).toString();
    if (code != 0) {
        fail(Refused);
        _lastError = TrelanError(TrelanError::Error(code), description);
    }

    if (operation == OPERATION_HANDSHAKE) {
        _handshaked = code == 0;
        if (!_handshaked)
            close();
        return _handshaked;
    }
    if (code == 0)
        return true;
    qCritical().noquote().nospace() << code << logtab << description;
    return false;
}

/// A QTcpSocket stays open as a device after its connection is gone, and while a close() is still
/// sending what was left, so the state decides.
bool TrelanQueryHandler::canRequest() const
{
    return _socket && _socket->isOpen() && _socket->state() == QAbstractSocket::ConnectedState;
}

void TrelanQueryHandler::resetFailure()
{
    _lastFailure = None;
    _lastError = TrelanError();
}

bool TrelanQueryHandler::fail(Failure failure)
{
    _lastFailure = failure;
    return false;
}

/// What did not come is late or wrong only as long as there is somebody to send it.
bool TrelanQueryHandler::failUnlessLost(Failure failure)
{
    return fail(canRequest() ? failure : NotOpen);
}

void TrelanQueryHandler::sendRequest(const QString &operation, const QVariantMap &data)
{
    _socket->write(frameOf(operation, data));
    _socket->flush();
    if (canRequest()) // the flush notices a connection that is gone
        wait::bytesWritten(*_socket, WAIT_MS);
}

bool TrelanQueryHandler::connectToBus()
{
    // A close that is still sending, or a connection without a handshake, would make
    // connectToHost() refuse; and an earlier handshake says nothing about this connection.
    if (_socket->state() != QAbstractSocket::UnconnectedState) {
        _socket->blockSignals(true);
        _socket->abort();
    }
    _handshaked = false;
    _socket->blockSignals(false);
    _socket->connectToHost(QHostAddress(queryHost()), queryPort(), QIODevice::ReadWrite);
    const bool connected =
        _socket->state() == QAbstractSocket::ConnectedState ||
        wait::connected(*_socket, _reader ? TrelanTransport::patience() : WAIT_MS);
    if (connected && _reader)
        _socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    return connected;
}

bool TrelanQueryHandler::waitForReply(qint64 staleBytes)
{
    // While a large request is being written the reply may arrive, and waiting for the write then
    // takes it off the wire: waiting for it again would wait for nothing. Bytes that were there
    // before the request are not its reply.
    const bool arrived = _socket && _socket->bytesAvailable() > staleBytes;
    if (!arrived && (!_socket || !wait::readyRead(*_socket, WAIT_MS))) {
        qCritical().noquote() << tr("Socket wait for ready read error");
        return failUnlessLost(Timeout);
    }
    if (!_socket || _socket->bytesAvailable() == 0) {
        qCritical().noquote() << tr("Socket is empty");
        return failUnlessLost(Framing);
    }
    return true;
}

bool TrelanQueryHandler::readReply(QVariantMap &answer)
{
    const QString header =
        TrelanFrame::lineText(_socket->readLine(TrelanFrame::MAX_LINE_LENGTH + 1));
    const QString sizeText =
        TrelanFrame::lineText(_socket->readLine(TrelanFrame::MAX_LINE_LENGTH + 1));
    if (header != TrelanFrame::headerWord(TrelanFrame::Reply)) {
        qCritical().noquote().nospace() << tr("Incorrect reply header: ") << header;
        return fail(Framing);
    }

    const int size = sizeText.toInt(nullptr, 10); // no number is size 0 on this channel
    const QByteArray payload = readPayload(size);
    if (payload.size() != size) {
        qCritical().noquote()
            << tr("Incorrect reply data size %1 != %2").arg(payload.size()).arg(size)
            << loglist(linesOf(payload));
        return failUnlessLost(Framing);
    }
    return takePayload(payload, answer);
}

bool TrelanQueryHandler::takePayload(const QByteArray &payload, QVariantMap &answer)
{
    if (!_lastDone.isEmpty() && payload == _lastDone) {
        answer.clear();
        return true;
    }
    const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(payload);
    if (decoded.fault != TrelanFrame::NoFault) {
        qWarning().noquote().nospace()
            << decoded.errorText << logtab << logbinary(decoded.json, "UTF-8");
        return fail(Framing);
    }

    const QVariantMap data = decoded.envelope.value(QStringLiteral("data")).toMap();
    const QVariantMap result = decoded.envelope.value(QStringLiteral("result")).toMap();
    const QString operation = decoded.envelope.value(QStringLiteral("operation")).toString();
    if (!processReply(operation, data, result))
        return false;
    answer = data;
    // Most replies say nothing but yes, in the same bytes each time.
    if (_reader && data.isEmpty() && operation != OPERATION_HANDSHAKE)
        _lastDone = payload.size() <= MAX_REMEMBERED ? payload : QByteArray();
    return true;
}

/// Reads at most \a size bytes, and fewer when the attempts for that size are used up or the
/// connection is gone. The announced size by itself takes no memory.
QByteArray TrelanQueryHandler::readPayload(int size)
{
    const int attempts = qMax(MIN_READ_ATTEMPTS, size / BYTES_PER_ATTEMPT + 1);
    QByteArray payload;
    for (int attempt = 0; payload.size() < size && attempt < attempts; ++attempt) {
        if (attempt >= ATTEMPTS_WITHOUT_WAIT)
            _socket->waitForReadyRead(READ_WAIT_MS);
        const qint64 arrived = _socket->bytesAvailable();
        if (arrived > 0)
            payload.append(_socket->read(qMin<qint64>(size - payload.size(), arrived)));
        QThread::msleep(READ_PAUSE_MS);
        if (wait::isInterrupted() || (arrived == 0 && !canRequest()))
            break;
    }
    return payload;
}

/// With what a publish fills in.
TrelanObject TrelanQueryHandler::completed(TrelanObject object) const
{
    object.setPublisher(_clientName);
    if (object.uid().isEmpty())
        object.setUid(_reader ? uids::unique(object) : object.genUid());
    if (!object.timestamp().isValid())
        object.setDt(QDateTime::currentDateTime());
    return object;
}

/// Keeps a bounded number of requests ahead of their replies, which come in the same order.
bool TrelanQueryHandler::publishAhead(const QList<TrelanObject> &objects)
{
    Failure failure = None;
    TrelanError error;
    const auto note = [&](bool done, const QVariantMap & /*answer*/) {
        if (!done) {
            failure = _lastFailure;
            error = _lastError;
        }
    };
    const int connection = _connection;
    const json::Keep keep;
    for (const TrelanObject &object : objects) {
        if (_connection == connection && !wait::isInterrupted()) {
            ask(publishFrame(completed(object)), note);
        } else {
            takeReplies();
            note(fail(NotOpen), {});
        }
    }
    takeReplies();
    _lastFailure = failure;
    _lastError = error;
    return failure == None;
}

void TrelanQueryHandler::loadObject(const QString &name,
                                    const std::function<void(const TrelanObject &)> &loaded)
{
    const auto taken = [loaded](bool done, const QVariantMap &answer) {
        if (done)
            loaded(TrelanObject::fromVariantMap(answer));
    };
    const QVariantMap data {{KEY_NAME, name}};
    if (_reader) {
        askLater(frameOf(OPERATION_LOAD, data), taken);
        return;
    }
    QVariantMap answer;
    taken(request(answer, OPERATION_LOAD, data), answer);
}

QByteArray TrelanQueryHandler::frameOf(const QString &operation, const QVariantMap &data) const
{
    return TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(operation, data),
                               _coding);
}

QByteArray TrelanQueryHandler::publishFrame(const TrelanObject &object) const
{
    return _coding == TrelanTransport::Light ? requests::publish(object)
                                             : frameOf(OPERATION_PUBLISH, object.toVariantMap());
}

/// Sends a request and waits for its reply, or goes ahead with it if that is wanted.
bool TrelanQueryHandler::promptRequest(const QByteArray &frame)
{
    // Only this one: who is told of something meanwhile may request as ever.
    if (std::exchange(_goesAhead, false)) {
        askLater(frame, [](bool, const QVariantMap &) {});
        return true;
    }
    QVariantMap ignored;
    return promptRequest(frame, ignored);
}

bool TrelanQueryHandler::promptRequest(const QByteArray &frame, QVariantMap &answer)
{
    bool done = false;
    ask(frame, [&](bool success, const QVariantMap &reply) {
        done = success;
        if (success)
            answer = reply;
    });
    takeReplies();
    return done;
}

/// Sends a request, or says that it cannot be sent, after what came of those before it.
void TrelanQueryHandler::ask(const QByteArray &frame, const Taken &taken)
{
    const int connection = _connection;
    while (_asked.size() >= MAX_AHEAD || _bytesAsked >= MAX_BYTES_AHEAD)
        takeReply();
    // The handshake comes this way too, so that being handshaked is no condition here. Out of step
    // is for nobody to say while there are replies to come.
    const bool inStep = !canRequest() || !_asked.isEmpty() || !isOutOfStep();
    if (_connection == connection && canRequest() && inStep) {
        _unsent += frame;
        if (_asked.isEmpty() || _unsent.size() >= MAX_UNSENT)
            sendAhead();
        // Of that connection: what is lost while it is sent has no reply on the next one.
        _asked.enqueue({connection, frame.size(), taken});
        _bytesAsked += frame.size();
        return;
    }
    takeReplies();
    resetFailure();
    const bool isOut = _connection == connection && canRequest();
    taken(isOut ? breakOff(Framing) : fail(NotOpen), {});
}

void TrelanQueryHandler::askLater(const QByteArray &frame, const Taken &taken)
{
    ask(frame, taken);
    takeReplyLater();
}

/// Waits for the reply to the first request that has none yet.
void TrelanQueryHandler::takeReply()
{
    const Asked asked = _asked.dequeue();
    _bytesAsked -= asked.size;
    resetFailure();
    QVariantMap answer;
    const bool done = asked.connection == _connection ? promptReply(answer) : fail(NotOpen);
    asked.taken(done, answer);
}

void TrelanQueryHandler::takeReplies()
{
    while (!_asked.isEmpty())
        takeReply();
}

/// One at a time, behind what waits to be asked now.
void TrelanQueryHandler::takeReplyLater()
{
    if (_takesLater || _asked.isEmpty())
        return;
    _takesLater = true;
    const auto take = [this] {
        _takesLater = false;
        if (!_asked.isEmpty())
            takeReply();
        takeReplyLater();
    };
    QMetaObject::invokeMethod(this, take, Qt::QueuedConnection);
}

void TrelanQueryHandler::sendAhead()
{
    const QByteArray frames = std::exchange(_unsent, {});
    if (!frames.isEmpty() && canRequest())
        direct::send(*_socket, frames);
}

bool TrelanQueryHandler::promptReply(QVariantMap &answer)
{
    const int connection = _connection;
    const TrelanFrameReader::Status status = awaitFrame(TrelanTransport::patience());
    if (status == TrelanFrameReader::NeedMoreData) {
        // Lost, and perhaps opened again by who was told: that one owes no reply.
        if (_connection != connection || !canRequest())
            return fail(NotOpen);
        qCritical().noquote() << tr("Socket wait for ready read error");
        return breakOff(Timeout);
    }
    if (status != TrelanFrameReader::FrameReady || _reader->kind() != TrelanFrame::Reply) {
        qCritical().noquote().nospace() << tr("Incorrect reply header: ") << _reader->faultText();
        return breakOff(Framing);
    }
    if (takePayload(_reader->payload(), answer))
        return true;
    return _lastFailure == Framing ? breakOff(Framing) : false;
}

/// NeedMoreData if no whole frame has come in this time, the connection is lost, or the thread is
/// asked to end.
TrelanFrameReader::Status TrelanQueryHandler::awaitFrame(int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    const int connection = _connection;
    for (;;) {
        const TrelanFrameReader::Status status = _reader->next();
        if (status != TrelanFrameReader::NeedMoreData || !_socket)
            return status;
        // Either may notice that the connection is lost, and who is told may open it again.
        sendAhead();
        const QByteArray bytes =
            _connection == connection ? direct::read(*_socket, deadline) : QByteArray();
        if (_connection != connection || (bytes.isEmpty() && wait::isOver(*_socket, deadline)))
            return TrelanFrameReader::NeedMoreData;
        _reader->feed(bytes);
    }
}

/// Whether something has come that nobody asked for, or more than was asked for.
bool TrelanQueryHandler::isOutOfStep()
{
    if (!direct::hasArrived(*_socket) && !_reader->isInsideFrame())
        return false;
    qCritical().noquote() << tr("A reply that nobody has asked for");
    return true;
}

/// Ends a connection on which a late reply would be taken for the next one. open() ends one that
/// is not accepted yet by itself.
bool TrelanQueryHandler::breakOff(Failure failure)
{
    if (_handshaked && _socket) {
        // What the reader still holds answers nobody any more.
        _reader = std::make_unique<TrelanFrameReader>(TrelanTransport::maxPayload());
        _unsent.clear();
        _socket->abort();
    }
    return fail(failure); // last: who is told may have asked for something
}

} // namespace bus
