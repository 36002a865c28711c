#include "rawpeer.h"

#include <trelanerror.h>

#include <QtCore/QJsonDocument>

#include <arpa/inet.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

using bus::TrelanFrame;
using bus::TrelanFrameReader;

TestBus::TestBus(bus::TrelanBusSettings settings)
{
    settings.setQueryPort(0);
    settings.setMsgPort(0);
    if (!start(settings))
        qFatal("%s", qUtf8Printable(errorString()));
}

RawPeer::RawPeer()
    : _socket(::socket(AF_INET, SOCK_STREAM, 0))
{
    const timeval wait {30, 0};
    ::setsockopt(_socket, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    ::setsockopt(_socket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
}

RawPeer::RawPeer(const bus::TrelanBus &server, const QString &name)
    : RawPeer(server.queryPort(), name)
{}

RawPeer::RawPeer(quint16 queryPort, const QString &name)
    : RawPeer()
{
    const bool connected = connectTo(queryPort);
    const QByteArray request = "handshake {'name':'" + name.toUtf8() + "'}";
    if (!connected || (!name.isEmpty() && ask(request) != "0 "))
        qWarning("the peer is not registered"); // the test will fail where that matters
}

RawPeer::~RawPeer()
{
    ::close(_socket);
}

bool RawPeer::connectTo(quint16 port)
{
    const sockaddr_in to {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    return ::connect(_socket, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0;
}

QString RawPeer::address() const
{
    sockaddr_in own {};
    socklen_t size = sizeof own;
    ::getsockname(_socket, reinterpret_cast<sockaddr *>(&own), &size);
    return QString("127.0.0.1:%1").arg(ntohs(own.sin_port));
}

QString RawPeer::owner()
{
    const passwd *const user = ::getpwuid(::geteuid());
    return user ? QString("user %1").arg(user->pw_name) : QString("user %1").arg(::geteuid());
}

QByteArray RawPeer::frame(const QByteArray &request)
{
    const int blank = request.indexOf(' ');
    const QByteArray json = request.mid(blank).replace('\'', '"');
    return frame(request.left(blank), QJsonDocument::fromJson(json).toVariant().toMap());
}

QByteArray RawPeer::frame(const QString &operation, const QVariantMap &data)
{
    return TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(operation, data));
}

QByteArray RawPeer::jsonFrame(const QByteArray &json)
{
    return TrelanFrame::frame(TrelanFrame::Request, qCompress(json).toBase64());
}

bool RawPeer::send(const QByteArray &bytes)
{
    const auto size = size_t(bytes.size());
    return ::send(_socket, bytes.constData(), size, MSG_NOSIGNAL) == bytes.size();
}

QString RawPeer::receive()
{
    if (!receiveFrame() || _reader.kind() != TrelanFrame::Reply)
        return "none";
    const QVariantMap result = _envelope.value("result").toMap();
    return result.value("code").toString() + ' ' + result.value("description").toString();
}

QVariantMap RawPeer::receiveDelivery()
{
    return receiveFrame() && _reader.kind() == TrelanFrame::Request ? data() : QVariantMap();
}

bool RawPeer::acknowledge(const QVariantMap &message)
{
    const QVariantMap answer {{"sender", message.value("s")},
                              {"reciever", message.value("r")},
                              {"uid", message.value("uid")}};
    return send(TrelanFrame::encode(TrelanFrame::Reply,
                                    TrelanFrame::reply("sendMessage", bus::TrelanError(), answer)));
}

QVariantMap RawPeer::receiveObject()
{
    const QVariantMap message = receiveDelivery();
    acknowledge(message);
    const QByteArray text = message.value("msg").toString().toUtf8();
    return QJsonDocument::fromJson(text).toVariant().toMap().value("__context__").toMap();
}

bool RawPeer::receiveFrame()
{
    char bytes[64 * 1024];
    TrelanFrameReader::Status status = _reader.next();
    ssize_t count = 1;
    while (status == TrelanFrameReader::NeedMoreData && count > 0) {
        do // EINTR comes when the process was stopped meanwhile
            count = ::recv(_socket, bytes, sizeof bytes, 0);
        while (count < 0 && errno == EINTR);
        _reader.feed(QByteArray(bytes, int(qMax<ssize_t>(count, 0))));
        status = _reader.next();
    }
    const bool isFrame = status == TrelanFrameReader::FrameReady;
    _envelope = isFrame ? TrelanFrame::decodePayload(_reader.payload()).envelope : QVariantMap();
    return isFrame;
}

QString RawPeer::ask(const QByteArray &request)
{
    return send(frame(request)) ? receive() : "none";
}

bool RawPeer::hasInput(int milliseconds)
{
    pollfd poll {_socket, POLLIN, 0};
    return ::poll(&poll, 1, milliseconds) > 0;
}

bool RawPeer::awaitEnd()
{
    char bytes[64 * 1024];
    ssize_t count = 1;
    while (count > 0)
        count = ::recv(_socket, bytes, sizeof bytes, 0);
    return count == 0 || errno == ECONNRESET;
}

void RawPeer::endWithReset()
{
    const linger atOnce {1, 0};
    ::setsockopt(_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

RawClient::RawClient(quint16 queryPort, quint16 msgPort, const QString &name,
                     const QString &wildcard)
{
    const QByteArray handshake = RawPeer::frame("handshake", {{"name", name}});
    query.connectTo(queryPort);
    query.send(handshake + RawPeer::frame("sub", {{"wc", wildcard}}));
    messages.connectTo(msgPort);
    messages.send(handshake);
}

bool RawClient::isThere()
{
    return query.receive() == "0 " && query.receive() == "0 " && messages.receive() == "0 ";
}
