#pragma once

#include "loopbacksocket.h"

#include <QtCore/QByteArray>

#include <algorithm>
#include <array>
#include <cstring>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>

/// What the raw relay and its clients say to each other.
///
/// A frame is its length, four bytes of this machine's order, and so many bytes. One without any
/// asks for everything that comes; every frame is acknowledged with the length 0.
namespace relay
{

using Length = quint32;

inline QByteArray frame(const QByteArray &bytes)
{
    const auto length = Length(bytes.size());
    return QByteArray(reinterpret_cast<const char *>(&length), sizeof(length)) + bytes;
}

/// Puts frames together that come in pieces.
class FrameReader
{
public:
    explicit FrameReader(LoopbackSocket connection)
        : socket(std::move(connection))
    {}

    /// Takes what is there, and hands each whole frame on, its length included.
    template <typename Take>
    bool read(const Take &take)
    {
        const int had = _bytes.size();
        _bytes.resize(had + PIECE);
        const ssize_t got = socket.read(_bytes.data() + had, PIECE);
        _bytes.resize(had + int(std::max<ssize_t>(got, 0)));
        if (got <= 0)
            return false;
        int at = 0;
        Length length = 0;
        while (_bytes.size() - at >= int(sizeof(length))) {
            memcpy(&length, _bytes.constData() + at, sizeof(length));
            const int size = int(sizeof(length) + length);
            if (_bytes.size() - at < size)
                break;
            take(_bytes.constData() + at, size_t(size));
            at += size;
        }
        _bytes.remove(0, at);
        return true;
    }

    LoopbackSocket socket;

private:
    static constexpr int PIECE = 65536;

    QByteArray _bytes;
};

/// Waits for many sockets.
class Watch
{
public:
    Watch() = default;
    ~Watch() { ::close(_epoll); }
    Q_DISABLE_COPY(Watch)

    void add(int descriptor) const
    {
        epoll_event event {};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        ::epoll_ctl(_epoll, EPOLL_CTL_ADD, descriptor, &event);
    }
    template <typename Readable>
    void wait(const Readable &readable) const
    {
        std::array<epoll_event, 64> events {};
        const int number = ::epoll_wait(_epoll, events.data(), int(events.size()), -1);
        for (int i = 0; i < number; ++i)
            readable(events[size_t(i)].data.fd);
    }

private:
    const int _epoll = ::epoll_create1(EPOLL_CLOEXEC);
};

} // namespace relay
