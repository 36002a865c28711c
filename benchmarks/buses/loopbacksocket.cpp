#include "loopbacksocket.h"

#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr int PATIENCE_S = 10;

sockaddr_in loopback(quint16 port)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

/// The form in which the system takes addresses.
sockaddr *generic(sockaddr_in &address)
{
    return reinterpret_cast<sockaddr *>(&address);
}

} // namespace

LoopbackSocket::LoopbackSocket(int descriptor)
    : _descriptor(descriptor)
{
    sendAtOnce();
}

LoopbackSocket::~LoopbackSocket()
{
    if (_descriptor >= 0)
        ::close(_descriptor);
}

LoopbackSocket::LoopbackSocket(LoopbackSocket &&other) noexcept
    : _descriptor(std::exchange(other._descriptor, -1))
{}

LoopbackSocket &LoopbackSocket::operator=(LoopbackSocket &&other) noexcept
{
    std::swap(_descriptor, other._descriptor);
    return *this;
}

bool LoopbackSocket::open(quint16 port)
{
    sockaddr_in address = loopback(port);
    const timeval patience {PATIENCE_S, 0};
    _descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::setsockopt(_descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    ::setsockopt(_descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    sendAtOnce();
    return ::connect(_descriptor, generic(address), sizeof(address)) == 0;
}

bool LoopbackSocket::listen()
{
    sockaddr_in address = loopback(0);
    _descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return ::bind(_descriptor, generic(address), sizeof(address)) == 0 &&
           ::listen(_descriptor, SOMAXCONN) == 0;
}

LoopbackSocket LoopbackSocket::accept() const
{
    return LoopbackSocket(::accept4(_descriptor, nullptr, nullptr, SOCK_CLOEXEC));
}

quint16 LoopbackSocket::port() const
{
    sockaddr_in address {};
    socklen_t size = sizeof(address);
    return ::getsockname(_descriptor, generic(address), &size) == 0 ? ntohs(address.sin_port) : 0;
}

bool LoopbackSocket::write(const char *data, size_t size) const
{
    while (size > 0) {
        const ssize_t written = ::send(_descriptor, data, size, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        size -= size_t(written);
    }
    return true;
}

ssize_t LoopbackSocket::read(char *data, size_t size) const
{
    ssize_t got = -1;
    do {
        got = ::recv(_descriptor, data, size, 0);
    } while (got < 0 && errno == EINTR);
    return got;
}

bool LoopbackSocket::readAll(char *data, size_t size) const
{
    while (size > 0) {
        const ssize_t got = read(data, size);
        if (got <= 0)
            return false;
        data += got;
        size -= size_t(got);
    }
    return true;
}

void LoopbackSocket::sendAtOnce() const
{
    const int on = 1;
    ::setsockopt(_descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}
