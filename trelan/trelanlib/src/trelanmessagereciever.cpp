#include "trelanmessagereciever.h"

#include "channel/socketwait.h"
#include "codec/push.h"
#include "trelanframe.h"

#include <jsonreader.h>
#include <loghelpers.h>

#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QEvent>
#include <QtCore/QSignalBlocker>
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

constexpr int WAIT_MS = 30000;      // for the connection and for a frame to leave
constexpr int READ_WAIT_MS = 100;   // after every read attempt
constexpr int READ_PAUSE_MS = 10;   // likewise, before that
constexpr int CLOSE_PAUSE_MS = 100; // before a connection is ended
constexpr int BYTES_PER_ATTEMPT = 100;
constexpr int MAX_REMEMBERED = 100;

// In Prompt mode.
constexpr qint64 READ_CHUNK = 64 * 1024;
constexpr int MAX_UNSENT = 16 * 1024;
constexpr qint64 MAX_UNSENT_NS = 1000000;
constexpr qint64 MAX_UNREAD_BY_BUS = 1024 * 1024; // thousands of acknowledgements

const QString OPERATION_HANDSHAKE = QStringLiteral("handshake");
const QString OPERATION_SEND_MESSAGE = QStringLiteral("sendMessage");

TrelanObject objectOf(const TrelanMessage &msg, const QVariantMap &notification)
{
    TrelanObject object(msg.timestamp());
    object.setContent(notification.value(TrelanObject::MSG_CONTEXT_HD).toMap());
    object.setName(notification.value(TrelanObject::MSG_NAME_HD).toString());
    object.setPublisher(msg.sender());
    object.setUid(msg.uid());
    return object;
}

TrelanCommand commandOf(const TrelanMessage &msg, const QVariantMap &call)
{
    TrelanCommand command;
    command.setTimestamp(msg.timestamp());
    command.setName(call.value(TrelanCommand::MSG_NAME_HD).toString());
    command.setParams(call.value(TrelanCommand::MSG_PARAMS_HD).toMap());
    if (call.contains(TrelanCommand::PARENT_UID_HD))
        command.setParentUid(call.value(TrelanCommand::PARENT_UID_HD).toString());
    command.setNeedAnswer(msg.needAnswer());
    command.setUid(msg.uid());
    command.setReciever(msg.reciever());
    command.setSender(msg.sender());
    return command;
}

/// A QTcpSocket stays open as a device after its connection is gone, so that the state decides.
bool isConnected(const QPointer<QTcpSocket> &socket)
{
    return socket && socket->isOpen() && socket->state() != QAbstractSocket::UnconnectedState;
}

} // namespace

std::atomic<quint16> TrelanMessageReciever::_msgPort {TrelanMessageReciever::DEFAULT_PORT};
std::atomic<quint32> TrelanMessageReciever::_msgHost {
    QHostAddress(QHostAddress::LocalHost).toIPv4Address()};

TrelanMessageReciever::TrelanMessageReciever(const QString &clientName, QObject *parent)
    : QObject(parent)
    , _socket(new QTcpSocket(this))
    , _clientName(clientName)
    , _prompt(TrelanTransport::mode() == TrelanTransport::Prompt)
    , _cache(Filter::create(MAX_REMEMBERED))
{
    connect(_socket, SIGNAL(connected()), this, SLOT(socketConnected()));
    connect(_socket, SIGNAL(disconnected()), this, SLOT(socketDisconnected()));
    connect(_socket, SIGNAL(error(QAbstractSocket::SocketError)), this,
            SLOT(socketError(QAbstractSocket::SocketError)));
    connect(_socket, SIGNAL(readyRead()), this, SLOT(onSocketReadyRead()));
    for (QTimer *timer : {&_stall, &_answer}) {
        timer->setParent(this); // so that it goes to another thread with this
        timer->setSingleShot(true);
    }
    connect(&_stall, &QTimer::timeout, this,
            [this] { breakOff(QStringLiteral("the rest of a frame does not come")); });
    connect(&_answer, &QTimer::timeout, this,
            [this] { breakOff(QStringLiteral("the handshake is not answered")); });
}

TrelanMessageReciever::~TrelanMessageReciever()
{
    close();
    // Deleted by what a signal led to, perhaps one of the socket's own: it has to outlive that.
    if (_socket && (sender() || _isReading)) {
        _socket->setParent(nullptr);
        _socket->deleteLater();
    }
}

bool TrelanMessageReciever::isOpen() const
{
    return isConnected(_socket) && _opened;
}

QString TrelanMessageReciever::clientName() const
{
    return _clientName;
}

TrelanMessageReciever::Filter TrelanMessageReciever::filter() const
{
    return _cache;
}

void TrelanMessageReciever::setFilter(const Filter &filter)
{
    _cache = filter;
}

quint32 TrelanMessageReciever::msgHost()
{
    return _msgHost;
}

void TrelanMessageReciever::setMsgHost(quint32 host)
{
    _msgHost = host;
}

quint16 TrelanMessageReciever::msgPort()
{
    return _msgPort;
}

void TrelanMessageReciever::setMsgPort(const quint16 &port)
{
    _msgPort = port;
}

void TrelanMessageReciever::processMessage(const TrelanMessage &msg)
{
    QVariantMap body;
    if (!json::read(msg.message().toUtf8(), body)) {
        emit incomingMessage(msg);
        return;
    }
    const bool isNotification =
        body.contains(TrelanObject::MSG_REASON_HD) && body.contains(TrelanObject::MSG_NAME_HD) &&
        body.contains(TrelanObject::MSG_CONTEXT_HD) &&
        body.value(TrelanObject::MSG_REASON_HD).toString() == TrelanObject::MSG_REASON_SUB;
    if (isNotification)
        processObject(objectOf(msg, body));
    else if (body.contains(TrelanCommand::MSG_CMD_HD))
        emit incomingCommand(commandOf(msg, body.value(TrelanCommand::MSG_CMD_HD).toMap()));
    else
        emit incomingMessage(msg);
}

void TrelanMessageReciever::processObject(const TrelanObject &obj)
{
    static const QString CMD_PREFIX = QStringLiteral("%1.%2.").arg(
        TrelanCommand::BUS_OBJ_NAME_PREFIX, TrelanCommand::CMD_NAME_PREFIX);
    if (!obj.name().startsWith(CMD_PREFIX)) {
        emit incomingObject(obj);
        return;
    }
    TrelanCommand command;
    command.setTimestamp(obj.timestamp());
    command.setName(obj.name().mid(CMD_PREFIX.size()));
    command.setParams(obj.content());
    command.setSender(obj.publisher());
    command.setUid(obj.uid());
    emit incomingCommand(command);
}

bool TrelanMessageReciever::open()
{
    if (msgPort() == 0 || !_socket)
        return false;
    if (isOpen())
        return true;
    // connectToHost() refuses on a connection that is not yet accepted; and an earlier handshake
    // says nothing about a new connection.
    if (_socket->state() != QAbstractSocket::UnconnectedState) {
        _socket->blockSignals(true);
        _socket->abort();
    }
    _opened = false;
    _stall.stop();
    _answer.stop();
    _prompt = TrelanTransport::mode() == TrelanTransport::Prompt;
    _coding = TrelanTransport::coding();
    _reader.reset(_prompt ? new TrelanFrameReader(TrelanTransport::maxPayload()) : nullptr);
    _unsent.clear();
    _isHeld = false;
    // A slot with an event loop of its own keeps this from reading, but not the socket.
    _socket->setReadBufferSize(_prompt ? READ_CHUNK : 0);
    _socket->blockSignals(false);
    _socket->connectToHost(QHostAddress(msgHost()), msgPort(), QIODevice::ReadWrite);
    const QPointer<TrelanMessageReciever> self(this);
    const bool written =
        wait::connected(*_socket, _prompt ? TrelanTransport::patience() : WAIT_MS) && handshake();
    if (!self)
        return false;
    if (_prompt)
        _answer.start(TrelanTransport::patience());
    // Lost or refused while it was written: the signal for that has been, and must not be followed
    // by a success, on which a worker stops trying.
    if (written && isConnected(_socket)) {
        emit kelbusConnected();
        return true;
    }
    close();
    return false;
}

void TrelanMessageReciever::close()
{
    if (!_socket)
        return;
    _socket->blockSignals(true);
    sendAll();
    letGo();
    _stall.stop();
    _answer.stop();
    if (!_prompt)
        QThread::msleep(CLOSE_PAUSE_MS);
    _socket->abort();
    _opened = false;
}

void TrelanMessageReciever::socketConnected()
{
    // open() sends the handshake itself.
}

void TrelanMessageReciever::socketDisconnected()
{
    _stall.stop();
    _answer.stop();
    emit busDisconnected();
}

void TrelanMessageReciever::socketError(QAbstractSocket::SocketError error)
{
    // Every timed wait ends in this one when nothing came, and says so by its result.
    if (!_socket || error == QAbstractSocket::SocketTimeoutError)
        return;
    qWarning().noquote() << error << _socket->errorString() << QDateTime::currentDateTime();
}

void TrelanMessageReciever::onSocketReadyRead()
{
    if (_reader) {
        takeFrames();
        return;
    }
    // What a frame leads to may delete this receiver.
    const QPointer<TrelanMessageReciever> self(this);
    while (self && _socket && _socket->bytesAvailable() > 0 && !wait::isInterrupted()) {
        const QString header =
            TrelanFrame::lineText(_socket->readLine(TrelanFrame::MAX_LINE_LENGTH + 1));
        if (header == TrelanFrame::headerWord(TrelanFrame::Request))
            prepareRequest();
        else if (header == TrelanFrame::headerWord(TrelanFrame::Reply))
            prepareReply();
        else
            qCritical().noquote() << tr("Unknown request header: %1").arg(header);
    }
}

bool TrelanMessageReciever::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::SockAct && takeArrival())
        return true;
    return QObject::eventFilter(watched, event);
}

/// Past Qt, which asks for the size before it reads and keeps what it reads in a buffer of its own.
/// False if Qt has to see to it.
bool TrelanMessageReciever::takeArrival()
{
    if (!_reader || _isReading || wait::isInterrupted())
        return false;
    const QByteArray bytes = direct::take(*_socket);
    if (bytes.isEmpty())
        return false;
    _reader->feed(bytes);
    takeFrames();
    return true;
}

bool TrelanMessageReciever::handshake()
{
    QVariantMap data {{QStringLiteral("name"), _clientName}};
    if (_reader) {
        _socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        direct::watchArrivals(*_socket, this);
        data.insert(QStringLiteral("prompt"), true); // the bus may send more ahead
    }
    return request(OPERATION_HANDSHAKE, data);
}

bool TrelanMessageReciever::request(QString cmd, QVariantMap data)
{
    if (!isConnected(_socket))
        return false;
    const QPointer<TrelanMessageReciever> self(this); // a connection lost here is a signal
    write(TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(cmd, data), _coding));
    if (self)
        letGo();
    return true;
}

bool TrelanMessageReciever::reply(QString cmd, TrelanError error, QVariantMap data)
{
    if (!isConnected(_socket))
        return false;
    write(TrelanFrame::encode(TrelanFrame::Reply, TrelanFrame::reply(cmd, error, data), _coding));
    return true;
}

void TrelanMessageReciever::write(const QByteArray &frame)
{
    // Of its own: a connection that is lost here is a signal, which may delete this receiver.
    const QPointer<QTcpSocket> socket = _socket;
    if (_reader) {
        writeLater(frame);
        return;
    }
    socket->write(frame);
    socket->flush();
    if (isConnected(socket))
        wait::bytesWritten(*socket, WAIT_MS);
}

/// Goes to the system at once, unless there is more to come soon.
void TrelanMessageReciever::writeLater(const QByteArray &frame)
{
    if (_unsent.isEmpty())
        _sinceUnsent.start();
    _unsent += frame;
    if (!_reader->hasNext() || _unsent.size() >= MAX_UNSENT ||
        _sinceUnsent.nsecsElapsed() >= MAX_UNSENT_NS) {
        sendAll();
        return;
    }
    // What comes next may need no answer, or a slot may have an event loop of its own before.
    if (std::exchange(_sendsLater, true))
        return;
    const auto send = [this] {
        _sendsLater = false;
        const QPointer<TrelanMessageReciever> self(this); // a connection lost here is a signal
        sendAll();
        if (self)
            letGo();
    };
    QMetaObject::invokeMethod(this, send, Qt::QueuedConnection);
}

void TrelanMessageReciever::sendAll()
{
    const QByteArray frames = std::exchange(_unsent, {});
    if (frames.isEmpty() || !isConnected(_socket))
        return;
    _isHeld = true;
    direct::sendSoon(*_socket, frames); // last: a connection lost here is a signal
}

/// The system holds acknowledgements until what they acknowledge is handed on, since the bus would
/// take its turn before the application; but for little more than 200 ms, whatever a slot does, and
/// not beyond the end of the process. If it ends with something unread, that is a reset, and what
/// is held then is lost: those messages come again.
void TrelanMessageReciever::letGo()
{
    if (std::exchange(_isHeld, false) && isConnected(_socket))
        direct::letGo(*_socket);
}

void TrelanMessageReciever::takeFrames()
{
    if (_isReading) // in an event loop of a slot: what has come has to wait until that returns
        return;
    const QPointer<TrelanMessageReciever> self(this);
    _isReading = true;
    readFrames();
    if (!self)
        return;
    _isReading = false;
    letGo();
}

/// What has arrived, frame by frame. What a frame leads to may delete this receiver, close it, or
/// open it again.
void TrelanMessageReciever::readFrames()
{
    const QPointer<TrelanMessageReciever> self(this);
    bool progress = false;
    while (_reader && !wait::isInterrupted()) {
        switch (_reader->next()) {
        case TrelanFrameReader::FrameReady:
            progress = true;
            _stall.stop(); // what the frame leads to may take its time
            if (!takeFrame() || !self)
                return;
            break;
        case TrelanFrameReader::NeedMoreData:
            if (_socket->bytesAvailable() == 0) {
                watchStall(progress);
                return;
            }
            _reader->feed(_socket->read(READ_CHUNK));
            break;
        case TrelanFrameReader::Malformed:
        case TrelanFrameReader::TooLarge:
            breakOff(_reader->faultText());
            if (!self || !isConnected(_socket))
                return;
            progress = false; // a slot has opened it again, and may have kept it from reading
            break;
        }
    }
}

/// False if the connection is not there any more.
bool TrelanMessageReciever::takeFrame()
{
    const QPointer<TrelanMessageReciever> self(this);
    const TrelanFrame::Kind kind = _reader->kind();
    const bool done = kind == TrelanFrame::Request ? takeRequest(_reader->payload())
                                                   : takeReply(_reader->payload());
    if (!self)
        return false;
    if (!done && kind == TrelanFrame::Request)
        qWarning().noquote() << tr("Invalid request data");
    else if (!done)
        qWarning().noquote() << tr("Incorrect reply data");
    if (isConnected(_socket) && _socket->bytesToWrite() > MAX_UNREAD_BY_BUS)
        breakOff(QStringLiteral("the bus does not read"));
    return self && isConnected(_socket);
}

/// The clock runs from the beginning of a frame to its end.
void TrelanMessageReciever::watchStall(bool progress)
{
    if (!_reader->isInsideFrame())
        _stall.stop();
    else if (progress || !_stall.isActive())
        _stall.start(TrelanTransport::patience());
}

void TrelanMessageReciever::breakOff(const QString &reason)
{
    qWarning().noquote() << "The message channel is closed:" << reason;
    if (!isConnected(_socket))
        return;
    {
        // A slot that was told of a loss in between may open again, and that must not be aborted.
        const QSignalBlocker blocker(_socket);
        sendAll();
        letGo();
        _socket->abort();
    }
    _opened = false;
    socketDisconnected();
}

void TrelanMessageReciever::prepareRequest()
{
    const qint32 size = readSize();
    if (size < 0) {
        qWarning().noquote() << tr("Invalid request size");
        return;
    }
    QVariant envelope;
    if (!readData(size, envelope) || !processRequest(envelope))
        qWarning().noquote() << tr("Invalid request data");
}

void TrelanMessageReciever::prepareReply()
{
    const qint32 size = readSize();
    QVariant envelope;
    if (size < 0 || !readData(size, envelope) || !processReply(envelope))
        qWarning().noquote() << tr("Incorrect reply data");
}

qint32 TrelanMessageReciever::readSize()
{
    if (!_socket || !_socket->canReadLine()) {
        qWarning().noquote() << tr("Socket is empty");
        return -1;
    }
    const QString text = TrelanFrame::lineText(_socket->readLine(TrelanFrame::MAX_LINE_LENGTH + 1));
    bool ok = false;
    const qint32 size = text.toInt(&ok, 10);
    if (ok)
        return size;
    qWarning().noquote().nospace() << tr("Invalid request size: ") << text;
    return -1;
}

bool TrelanMessageReciever::readData(qint32 size, QVariant &out)
{
    const QByteArray payload = readPayload(size);
    return payload.size() == size && decode(payload, out);
}

bool TrelanMessageReciever::decode(const QByteArray &payload, QVariant &out)
{
    const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(payload);
    if (decoded.fault != TrelanFrame::NoFault) {
        qWarning().noquote().nospace()
            << decoded.errorText << logtab << logbinary(decoded.json, "UTF-8");
        return false;
    }
    out = QVariant(decoded.envelope);
    return true;
}

/// Reads at most \a size bytes, and fewer when the attempts for that size are used up or the
/// connection is gone. The announced size by itself takes no memory.
QByteArray TrelanMessageReciever::readPayload(qint32 size)
{
    const QPointer<TrelanMessageReciever> self(this); // a connection lost here is a signal
    const int attempts = size / BYTES_PER_ATTEMPT + 1;
    QByteArray payload;
    for (int attempt = 0; payload.size() < size && attempt < attempts && self; ++attempt) {
        if (!_socket)
            break;
        const qint64 arrived = _socket->bytesAvailable();
        if (arrived > 0)
            payload.append(_socket->read(qMin<qint64>(size - payload.size(), arrived)));
        QThread::msleep(READ_PAUSE_MS);
        if (wait::isInterrupted() || (arrived == 0 && !isConnected(_socket)))
            break;
        if (isConnected(_socket))
            _socket->waitForReadyRead(READ_WAIT_MS);
    }
    return self ? payload : QByteArray(); // a whole one has nobody left to process it
}

bool TrelanMessageReciever::takeRequest(const QByteArray &payload)
{
    if (const auto message = delivery::decode(payload)) {
        takeMessage(*message);
        return true;
    }
    QVariant envelope;
    return decode(payload, envelope) && processRequest(envelope);
}

bool TrelanMessageReciever::takeReply(const QByteArray &payload)
{
    QVariant envelope;
    return decode(payload, envelope) && processReply(envelope);
}

bool TrelanMessageReciever::processRequest(const QVariant &envelope)
{
    const QVariantMap request = envelope.toMap();
    const QString operation = request.value(QStringLiteral("operation")).toString();
    if (operation != OPERATION_SEND_MESSAGE) {
        reply(operation, TrelanError(TrelanError::UnsupportedRequest));
        return false;
    }

    takeMessage(TrelanMessage::fromVariantMap(request.value(QStringLiteral("data")).toMap()));
    return true;
}

void TrelanMessageReciever::takeMessage(const TrelanMessage &msg)
{
    // Repeated ones too, so that the bus stops sending them.
    const QPointer<TrelanMessageReciever> self(this); // a connection lost here is a signal
    if (isConnected(_socket))
        write(delivery::acknowledgement(msg, _coding));
    if (!self)
        return;

    const QString key = msg.msgKey();
    // contains() and never object(), which would count as a use: the oldest key goes first.
    if (_cache->contains(key)) {
        qWarning().noquote().nospace()
            << tr("Message repeating: ") << logtab << msg.sender() << "\t" << msg.reciever() << "\t"
            << msg.uid() << logtab << loglist(msg.message().split(QLatin1Char('\n')));
        return;
    }
    _cache->insert(key, new TrelanMessage(msg));
    processMessage(msg);
}

bool TrelanMessageReciever::processReply(const QVariant &envelope)
{
    const QVariantMap answer = envelope.toMap();
    const QString operation = answer.value(QStringLiteral("operation")).toString();
    const QVariantMap result = answer.value(QStringLiteral("result")).toMap();
    const quint16 code = TrelanFrame::replyCode(result);
    if (operation == OPERATION_HANDSHAKE) {
        const bool accepted = code == 0;
        _opened = accepted;
        _answer.stop();
        if (!accepted) {
            close();
            emit handshakeRefused();
        } else {
            emit handshakeAccepted();
        }
        return accepted;
    }
    if (code != 0) {
        qCritical().noquote().nospace()
            << code << logtab << result.value(QStringLiteral("description")).toString();
    }
    return true;
}

} // namespace bus
