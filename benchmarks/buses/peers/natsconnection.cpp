#include "natsconnection.h"

#include <algorithm>

bool NatsConnection::open(quint16 port)
{
    return _socket.open(port) &&
           sendAndFlush("CONNECT {\"verbose\":false,\"pedantic\":false,\"lang\":\"c++\"}\r\n");
}

QByteArray NatsConnection::message(const QByteArray &subject, const QByteArray &payload,
                                   const QByteArray &answers)
{
    return "PUB " + subject + ' ' + (answers.isEmpty() ? answers : answers + ' ') +
           QByteArray::number(payload.size()) + "\r\n" + payload + "\r\n";
}

bool NatsConnection::send(const QByteArray &bytes)
{
    return _socket.write(bytes.constData(), size_t(bytes.size()));
}

bool NatsConnection::sendAndFlush(const QByteArray &bytes)
{
    const int pongs = _pongs;
    if (!send(bytes + "PING\r\n"))
        return false;
    while (_pongs == pongs) {
        if (!read([](const QByteArray & /*payload*/) {}))
            return false;
    }
    return true;
}

bool NatsConnection::subscribe(const QByteArray &subject)
{
    return sendAndFlush("SUB " + subject + " 1\r\n");
}

bool NatsConnection::read(const Take &take)
{
    constexpr int PIECE = 65536;
    const int had = _bytes.size();
    _bytes.resize(had + PIECE);
    const ssize_t got = _socket.read(_bytes.data() + had, PIECE);
    _bytes.resize(had + int(std::max<ssize_t>(got, 0)));
    if (got <= 0)
        return false;
    int at = 0;
    while (takeLine(at, take)) {}
    _bytes.remove(0, at);
    return true;
}

/// False if there is no whole line, with its payload, at \a at.
bool NatsConnection::takeLine(int &at, const Take &take)
{
    const int end = _bytes.indexOf("\r\n", at);
    if (end < 0)
        return false;
    const QByteArray line = _bytes.mid(at, end - at);
    int next = end + 2;
    if (line.startsWith("MSG ")) {
        const int size = line.mid(line.lastIndexOf(' ') + 1).toInt();
        if (_bytes.size() < next + size + 2)
            return false;
        take(QByteArray::fromRawData(_bytes.constData() + next, size));
        next += size + 2;
    } else if (line == "PONG") {
        ++_pongs;
    } else if (line == "PING") {
        send("PONG\r\n");
    }
    at = next;
    return true;
}
