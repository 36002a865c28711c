#include "trelanmessagereciever.h"

#include "channel/channelsocket.h"
#include "channel/connectioncount.h"
#include "channel/promptinbox.h"
#include "channel/socketwait.h"
#include "codec/incoming.h"
#include "codec/push.h"
#include "codec/replies.h"
#include "trelanframe.h"
#include "trelantransport.h"

#include <jsonreader.h>
#include <loghelpers.h>
#include <wirekeys.h>

#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QSignalBlocker>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

#include <optional>

namespace bus
{

using morvik::logbinary;
using morvik::loglist;
using morvik::logtab;

namespace
{

constexpr int WAIT_MS = 30000;      // for a frame to leave
constexpr int READ_WAIT_MS = 100;   // after every read attempt
constexpr int READ_PAUSE_MS = 10;   // after every read attempt, before the wait
constexpr int CLOSE_PAUSE_MS = 100; // before a connection is ended
constexpr int BYTES_PER_ATTEMPT = 100;
constexpr int MAX_REMEMBERED = 100;

} // namespace

std::atomic<quint16> TrelanMessageReciever::_msgPort {TrelanMessageReciever::DEFAULT_PORT};
std::atomic<quint32> TrelanMessageReciever::_msgHost {
    QHostAddress(QHostAddress::LocalHost).toIPv4Address()};

/// What the receiver keeps, the paced way of reading, and what frames mean. The prompt way of
/// reading is the inbox's.
class TrelanMessageReciever::Private : public PromptInbox::Owner
{
public:
    Private(TrelanMessageReciever &receiver, const QString &clientName);

    bool isConnected() const;
    TrelanChannelSettings settings() const;
    bool open(bool asksFeatures);
    void close();
    void onSocketReadyRead();
    bool send(TrelanFrame::Kind kind, const QVariantMap &envelope);
    bool isPrompt() const;

    QPointer<QTcpSocket> _socket;
    QString _clientName;
    std::optional<TrelanChannelSettings> _ownSettings;
    bool _opened = false;
    bool _transient = false;
    bool _asksFeatures = false;
    bool _takesRemovals = false;
    bool _namesFeatures = false; // this connection's handshake has the key
    QStringList _features;
    TrelanError _refusal;
    Filter _cache;
    PromptInbox *_inbox; // a child of the receiver, with which it goes to another thread
    QTimer _answer;      // runs, in Prompt mode, until the handshake is answered

private:
    void onFrame(TrelanFrame::Kind kind, const QByteArray &payload) override;
    void onBroken(const QString &reason) override;

    void makeSocket();
    void write(const QByteArray &frame);
    void prepareRequest();
    void prepareReply();
    qint32 readSize() const;
    QByteArray readPayload(qint32 size);
    bool readData(qint32 size, QVariant &out);
    bool decode(const QByteArray &payload, QVariant &out);
    bool takeRequest(const QByteArray &payload);
    bool takeReply(const QByteArray &payload);
    bool processRequest(const QVariant &envelope);
    void takeMessage(const TrelanMessage &msg);
    bool processReply(const QVariant &envelope);
    bool takeHandshake(const TrelanError &error, const QVariantMap &data);
    void openWithoutFeatures();

    TrelanMessageReciever &_receiver;
    TrelanTransport::Mode _mode;
    TrelanTransport::Coding _coding = TrelanTransport::Classic;
    ConnectionCount _connections;
};

TrelanMessageReciever::TrelanMessageReciever(const QString &clientName, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(*this, clientName))
{}

TrelanMessageReciever::~TrelanMessageReciever()
{
    close();
    // A slot on a signal may delete the receiver, and the signal may be one of the socket's own:
    // the socket has to outlive that.
    if (d->_socket && (sender() || d->_inbox->isHandingOn()))
        wait::retire(*d->_socket);
}

bool TrelanMessageReciever::isOpen() const
{
    return d->isConnected() && d->_opened;
}

QString TrelanMessageReciever::clientName() const
{
    return d->_clientName;
}

TrelanMessageReciever::Filter TrelanMessageReciever::filter() const
{
    return d->_cache;
}

void TrelanMessageReciever::setFilter(const Filter &filter)
{
    d->_cache = filter;
}

void TrelanMessageReciever::setTransient(bool transient)
{
    d->_transient = transient;
}

void TrelanMessageReciever::setChannelSettings(const TrelanChannelSettings &settings)
{
    d->_ownSettings = settings;
}

TrelanChannelSettings TrelanMessageReciever::channelSettings() const
{
    return d->settings();
}

void TrelanMessageReciever::setAsksFeatures(bool asks)
{
    d->_asksFeatures = asks;
}

QStringList TrelanMessageReciever::features() const
{
    return d->_features;
}

void TrelanMessageReciever::setTakesRemovals(bool takes)
{
    d->_takesRemovals = takes;
}

TrelanError TrelanMessageReciever::refusal() const
{
    return d->_refusal;
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
    else if (d->_takesRemovals && isRemoval(body))
        emit objectRemoved(body.value(TrelanObject::MSG_NAME_HD).toString());
    else if (body.contains(TrelanCommand::MSG_CMD_HD))
        emit incomingCommand(commandOf(msg, body.value(TrelanCommand::MSG_CMD_HD).toMap()));
    else
        emit incomingMessage(msg);
}

void TrelanMessageReciever::processObject(const TrelanObject &obj)
{
    if (isCommandToEverybody(obj))
        emit incomingCommand(commandToEverybody(obj));
    else
        emit incomingObject(obj);
}

bool TrelanMessageReciever::open()
{
    if (d->settings().messagePort() == 0 || !d->_socket)
        return false;
    return isOpen() || d->open(d->_asksFeatures);
}

void TrelanMessageReciever::close()
{
    d->close();
}

void TrelanMessageReciever::socketConnected()
{
    // open() sends the handshake itself.
}

void TrelanMessageReciever::socketDisconnected()
{
    d->_answer.stop();
    emit busDisconnected();
}

void TrelanMessageReciever::socketError(QAbstractSocket::SocketError error)
{
    // Every timed wait ends in this one when nothing came, and says so by its result.
    if (!d->_socket || error == QAbstractSocket::SocketTimeoutError)
        return;
    qWarning().noquote() << error << d->_socket->errorString() << QDateTime::currentDateTime();
}

void TrelanMessageReciever::onSocketReadyRead()
{
    if (d->isPrompt())
        d->_inbox->takeArrived();
    else
        d->onSocketReadyRead();
}

bool TrelanMessageReciever::handshake()
{
    QVariantMap data {{keys::CLIENT_NAME, d->_clientName}};
    if (d->isPrompt()) {
        d->_inbox->watchArrivals();
        data.insert(keys::PROMPT, true); // the bus may send more ahead
    }
    if (d->_transient)
        data.insert(keys::TRANSIENT, true);
    if (d->_namesFeatures)
        data.insert(keys::FEATURES, true);
    return request(operations::HANDSHAKE, data);
}

bool TrelanMessageReciever::request(QString cmd, QVariantMap data)
{
    const QPointer<TrelanMessageReciever> self(this); // a connection that is found lost is a signal
    const bool isSent = d->send(TrelanFrame::Request, TrelanFrame::request(cmd, data));
    if (self)
        d->_inbox->letGo();
    return isSent;
}

bool TrelanMessageReciever::reply(QString cmd, TrelanError error, QVariantMap data)
{
    return d->send(TrelanFrame::Reply, TrelanFrame::reply(cmd, error, data));
}

TrelanMessageReciever::Private::Private(TrelanMessageReciever &receiver, const QString &clientName)
    : _clientName(clientName)
    , _cache(Filter::create(MAX_REMEMBERED))
    , _inbox(new PromptInbox(_socket, *this, &receiver))
    , _answer(&receiver)
    , _receiver(receiver)
    , _mode(TrelanTransport::mode())
{
    makeSocket();
    _answer.setSingleShot(true);
    connect(&_answer, &QTimer::timeout, &receiver,
            [this] { onBroken(QStringLiteral("the handshake is not answered")); });
}

void TrelanMessageReciever::Private::makeSocket()
{
    _socket = channelsocket::make(_receiver);
    connect(_socket, SIGNAL(readyRead()), &_receiver, SLOT(onSocketReadyRead()));
}

/// A QTcpSocket stays open as a device after its connection is gone, so that the state decides.
bool TrelanMessageReciever::Private::isConnected() const
{
    return _socket && _socket->isOpen() && _socket->state() != QAbstractSocket::UnconnectedState;
}

TrelanChannelSettings TrelanMessageReciever::Private::settings() const
{
    if (_ownSettings)
        return *_ownSettings;
    return TrelanChannelSettings::ofProcess().setHost(msgHost());
}

bool TrelanMessageReciever::Private::open(bool asksFeatures)
{
    if (!channelsocket::end(*_socket, _receiver.sender()))
        makeSocket();
    _connections.next();
    const ConnectionCount::Mark here = _connections.mark();
    _opened = false; // an earlier handshake says nothing about this connection
    _namesFeatures = asksFeatures;
    _features.clear();
    _refusal = TrelanError();
    _answer.stop();
    const TrelanChannelSettings now = settings();
    _mode = now.mode();
    _coding = now.coding();
    // Without settings of its own the channel takes that of the process whenever it waits.
    const auto patience = _ownSettings ? std::optional<int>(now.patience()) : std::nullopt;
    _inbox->begin(now.maxPayload(), patience);
    if (!isPrompt())
        _socket->setReadBufferSize(0);
    const QPointer<TrelanMessageReciever> self(&_receiver);
    const bool isWritten = channelsocket::connectToBus(*_socket, now, now.messagePort()) &&
                           !here.isOver() && _receiver.handshake();
    if (!self)
        return false;
    // A slot that was told of a loss has closed the channel, or has opened it again and heard so.
    if (here.isOver())
        return isConnected();
    // Lost while the handshake was written: the signal for that has been, and must not be followed
    // by a success, on which a worker stops trying.
    if (!isWritten || !isConnected()) {
        close();
        return false;
    }
    if (isPrompt())
        _answer.start(now.patience());
    emit _receiver.kelbusConnected();
    return true;
}

void TrelanMessageReciever::Private::close()
{
    if (!_socket)
        return;
    _connections.next();
    _socket->blockSignals(true);
    _inbox->end();
    _answer.stop();
    if (!isPrompt())
        QThread::msleep(CLOSE_PAUSE_MS);
    _socket->abort();
    _opened = false;
}

bool TrelanMessageReciever::Private::isPrompt() const
{
    return _mode == TrelanTransport::Prompt;
}

void TrelanMessageReciever::Private::onSocketReadyRead()
{
    // What a frame leads to may delete the receiver.
    const QPointer<TrelanMessageReciever> self(&_receiver);
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

bool TrelanMessageReciever::Private::send(TrelanFrame::Kind kind, const QVariantMap &envelope)
{
    if (!isConnected())
        return false;
    write(TrelanFrame::encode(kind, envelope, _coding));
    return true;
}

void TrelanMessageReciever::Private::onFrame(TrelanFrame::Kind kind, const QByteArray &payload)
{
    const QPointer<TrelanMessageReciever> self(&_receiver);
    const bool isRequest = kind == TrelanFrame::Request;
    const bool done = isRequest ? takeRequest(payload) : takeReply(payload);
    if (!self || done)
        return;
    if (isRequest)
        qWarning().noquote() << tr("Invalid request data");
    else
        qWarning().noquote() << tr("Incorrect reply data");
}

void TrelanMessageReciever::Private::onBroken(const QString &reason)
{
    qWarning().noquote() << "The message channel is closed:" << reason;
    if (!isConnected())
        return;
    {
        // A slot that was told of a loss in between may open again, and that must not be aborted.
        const QSignalBlocker blocker(_socket);
        _inbox->end();
        _socket->abort();
    }
    _opened = false;
    _receiver.socketDisconnected();
}

void TrelanMessageReciever::Private::write(const QByteArray &frame)
{
    if (isPrompt()) {
        _inbox->write(frame);
        return;
    }
    // A connection that is found lost here is a signal, and a slot may delete the receiver.
    const QPointer<QTcpSocket> socket = _socket;
    const ConnectionCount::Mark here = _connections.mark();
    socket->write(frame);
    socket->flush();
    if (socket && !here.isOver())
        wait::bytesWritten(*socket, here, WAIT_MS);
}

void TrelanMessageReciever::Private::prepareRequest()
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

void TrelanMessageReciever::Private::prepareReply()
{
    const qint32 size = readSize();
    QVariant envelope;
    if (size < 0 || !readData(size, envelope) || !processReply(envelope))
        qWarning().noquote() << tr("Incorrect reply data");
}

qint32 TrelanMessageReciever::Private::readSize() const
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

bool TrelanMessageReciever::Private::readData(qint32 size, QVariant &out)
{
    const QByteArray payload = readPayload(size);
    return payload.size() == size && decode(payload, out);
}

bool TrelanMessageReciever::Private::decode(const QByteArray &payload, QVariant &out)
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
QByteArray TrelanMessageReciever::Private::readPayload(qint32 size)
{
    const ConnectionCount::Mark here = _connections.mark();
    const int attempts = size / BYTES_PER_ATTEMPT + 1;
    QByteArray payload;
    for (int attempt = 0; payload.size() < size && attempt < attempts; ++attempt) {
        if (!_socket)
            break;
        const qint64 arrived = _socket->bytesAvailable();
        if (arrived > 0)
            payload.append(_socket->read(qMin<qint64>(size - payload.size(), arrived)));
        QThread::msleep(READ_PAUSE_MS);
        if (wait::isInterrupted() || (arrived == 0 && !isConnected()))
            break;
        if (isConnected())
            _socket->waitForReadyRead(READ_WAIT_MS);
        // The wait may find the connection lost. A slot that is told may delete the receiver, or
        // open it again: what comes then is no part of this payload.
        if (here.isOver())
            return {};
    }
    return payload;
}

bool TrelanMessageReciever::Private::takeRequest(const QByteArray &payload)
{
    if (const auto message = pushes::decode(payload)) {
        takeMessage(*message);
        return true;
    }
    QVariant envelope;
    return decode(payload, envelope) && processRequest(envelope);
}

bool TrelanMessageReciever::Private::takeReply(const QByteArray &payload)
{
    QVariant envelope;
    return decode(payload, envelope) && processReply(envelope);
}

bool TrelanMessageReciever::Private::processRequest(const QVariant &envelope)
{
    const QVariantMap request = envelope.toMap();
    const QString operation = request.value(keys::OPERATION).toString();
    if (operation != operations::SEND_MESSAGE) {
        _receiver.reply(operation, TrelanError(TrelanError::UnsupportedRequest));
        return false;
    }

    takeMessage(TrelanMessage::fromVariantMap(request.value(keys::DATA).toMap()));
    return true;
}

void TrelanMessageReciever::Private::takeMessage(const TrelanMessage &msg)
{
    // Repeated ones too, so that the bus stops sending them.
    const QPointer<TrelanMessageReciever> self(&_receiver); // a connection lost here is a signal
    if (isConnected())
        write(pushes::acknowledgement(msg, _coding));
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
    _receiver.processMessage(msg);
}

bool TrelanMessageReciever::Private::processReply(const QVariant &envelope)
{
    const QVariantMap answer = envelope.toMap();
    const QString operation = answer.value(keys::OPERATION).toString();
    const QVariantMap result = answer.value(keys::RESULT).toMap();
    const TrelanError error = replies::error(result);
    const quint16 code = error.error();
    if (operation == operations::HANDSHAKE) {
        return takeHandshake(error, answer.value(keys::DATA).toMap());
    }
    if (code != 0) {
        qCritical().noquote().nospace() << code << logtab << error.description();
    }
    return true;
}

bool TrelanMessageReciever::Private::takeHandshake(const TrelanError &error,
                                                   const QVariantMap &data)
{
    _answer.stop();
    _refusal = error;
    const bool isKeyRefused = _namesFeatures && error != TrelanError();
    if (_namesFeatures && !isKeyRefused) {
        _features = data.value(keys::FEATURES).toStringList();
        if (data.value(keys::CHANNEL, QString(channels::MESSAGE)) != QString(channels::MESSAGE))
            _refusal = TrelanError(TrelanError::UnsupportedRequest,
                                   QStringLiteral("the port is that of the query channel"));
    }
    _opened = _refusal == TrelanError();
    if (_opened) {
        emit _receiver.handshakeAccepted();
        return true;
    }
    close();
    if (isKeyRefused)
        openWithoutFeatures();
    else
        emit _receiver.handshakeRefused();
    return false;
}

/// Later, since the refusal came out of the connection that was closed.
void TrelanMessageReciever::Private::openWithoutFeatures()
{
    const ConnectionCount::Mark here = _connections.mark();
    const auto again = [this, here, refusal = _refusal] {
        const QPointer<TrelanMessageReciever> self(&_receiver);
        if (here.isOver() || open(false) || !self) // the first: it was closed or opened meanwhile
            return;
        _refusal = refusal;
        emit _receiver.handshakeRefused();
    };
    QMetaObject::invokeMethod(&_receiver, again, Qt::QueuedConnection);
}

} // namespace bus
