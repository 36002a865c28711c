#include "scriptedserver.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

ScriptedPeer::ScriptedPeer(ScriptedServer *server, int socket, int connection)
    : number(connection)
    , _server(server)
    , _socket(socket)
{}

/// Returns true once the descriptor is ready, false once the server ends.
bool ScriptedPeer::wait(int descriptor, short events) const
{
    pollfd fds[] = {{descriptor, events, 0}, {_server->_stop, POLLIN, 0}};
    while (poll(fds, 2, -1) < 0) {}
    return fds[1].revents == 0;
}

bool ScriptedPeer::read(int atLeast)
{
    QByteArray piece(1 << 18, 0);
    for (const int end = _buffer.size() + atLeast; _buffer.size() < end;) {
        if (!wait(_socket, POLLIN))
            return false;
        const auto count = recv(_socket, piece.data(), size_t(piece.size()), 0);
        if (count <= 0)
            return false;
        _buffer.append(piece.constData(), int(count));
    }
    return true;
}

bool ScriptedPeer::readFrame()
{
    for (;;) {
        const int headerEnd = _buffer.indexOf("\r\n");
        const int sizeEnd = headerEnd < 0 ? -1 : _buffer.indexOf("\r\n", headerEnd + 2);
        const int size = _buffer.mid(headerEnd + 2, sizeEnd - headerEnd - 2).toInt();
        const int end = sizeEnd + 2 + size;
        if (sizeEnd >= 0 && _buffer.size() >= end) {
            const QByteArray packed = QByteArray::fromBase64(_buffer.mid(sizeEnd + 2, size));
            const QByteArray json = qUncompress(packed);
            const QJsonObject envelope = QJsonDocument::fromJson(json).object();
            frame = {_buffer.left(end), json, envelope[QLatin1String("operation")].toString(),
                     envelope[QLatin1String("data")].toObject().toVariantMap(),
                     envelope[QLatin1String("result")].toObject().toVariantMap()};
            const QMutexLocker lock(&_server->_mutex);
            _server->_frames.append(frame);
            _buffer.remove(0, end);
            return true;
        }
        if (!read(1))
            return false;
    }
}

bool ScriptedPeer::send(const QByteArray &bytes)
{
    for (int sent = 0; sent < bytes.size();) {
        if (!wait(_socket, POLLOUT))
            return false;
        const auto count = ::send(_socket, bytes.constData() + sent, size_t(bytes.size() - sent),
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno != EAGAIN)
            return false;
        sent += qMax(0, int(count));
    }
    return true;
}

bool ScriptedPeer::awaitRelease()
{
    eventfd_t one = 0;
    return wait(_server->_released, POLLIN) && eventfd_read(_server->_released, &one) == 0;
}

void ScriptedPeer::awaitEnd()
{
    while (read(1))
        _buffer.clear();
}

void ScriptedPeer::close(bool reset)
{
    const linger atOnce {1, 0};
    if (reset)
        setsockopt(_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    if (_socket >= 0)
        ::close(_socket);
    _socket = -1;
}

ScriptedServer::ScriptedServer(const Script &script)
    : _script(script)
    , _listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    , _stop(eventfd(0, EFD_CLOEXEC))
    , _released(eventfd(0, EFD_CLOEXEC | EFD_SEMAPHORE))
{
    // A small buffer keeps a client with a few megabytes sending until the script answers.
    const int receiveBuffer = 64 * 1024;
    setsockopt(_listener, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    sockaddr_in address {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof(address);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    if (bind(_listener, generic, length) != 0 || listen(_listener, 16) != 0 ||
        getsockname(_listener, generic, &length) != 0)
        qFatal("no listening socket");
    _port = ntohs(address.sin_port);
    const QMutexLocker lock(&_mutex);
    _threads.emplace_back([this] { acceptAll(); });
}

ScriptedServer::~ScriptedServer()
{
    eventfd_write(_stop, 1);
    for (std::thread &thread :
         _threads) // the first one adds the others, and has ended before they are joined
        thread.join();
    for (const int descriptor : {_listener, _stop, _released})
        ::close(descriptor);
}

void ScriptedServer::acceptAll()
{
    const ScriptedPeer listening(this, _listener, -1);
    while (listening.wait(_listener, POLLIN)) {
        const int socket = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        const QMutexLocker lock(&_mutex);
        _threads.emplace_back([this, socket, number = int(_threads.size()) - 1] {
            ScriptedPeer peer(this, socket, number);
            _script(peer);
            peer.close();
        });
    }
}

QList<ScriptedFrame> ScriptedServer::frames() const
{
    const QMutexLocker lock(&_mutex);
    return _frames;
}

void ScriptedServer::release()
{
    eventfd_write(_released, 1);
}

QByteArray ScriptedServer::payload(const QByteArray &json)
{
    return qCompress(json).toBase64();
}

QByteArray ScriptedServer::frame(const QByteArray &header, const QByteArray &payload)
{
    return header + "\r\n" + QByteArray::number(payload.size()) + "\r\n" + payload;
}

QByteArray ScriptedServer::reply(const QByteArray &operation, int code,
                                 const QByteArray &description, const QByteArray &data)
{
    return frame("[-REPLY-]", payload(R"({"operation":")" + operation + R"(","data":)" + data +
                                      R"(,"result":{"code":)" + QByteArray::number(code) +
                                      R"(,"description":")" + description + "\"}}"));
}
