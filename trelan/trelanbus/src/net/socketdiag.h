#pragma once

#include "values/clientowner.h"

#include <QtCore/QByteArray>

#include <array>
#include <optional>

struct sockaddr_storage;

/// How the kernel is asked for a socket of this machine, and what it answers. Bytes and no socket.
namespace bus::socketdiag
{

/// Address and port of a socket. An address of IPv4 has the form ::ffff:a.b.c.d.
struct End
{
    std::array<quint8, 16> address {};
    quint16 port = 0;

    bool operator==(const End &other) const;
    bool isV4() const;
    bool isLoopback() const;
};

/// The two ends of a connection, as the side that is looked for has them.
struct Ends
{
    End local;
    End remote;

    bool operator==(const Ends &other) const;
};

/// Nothing for an address that is not of IPv4 or IPv6.
std::optional<End> endOf(const sockaddr_storage &address);

/// The request for the one socket with these ends.
QByteArray request(const Ends &ends, quint32 sequence);

struct Answer
{
    enum Verdict {
        Foreign, ///< the bytes answer another request
        Refused, ///< there is no such socket, or the kernel cannot be asked so
        Given
    };
    Verdict verdict = Foreign;
    ClientOwner owner; ///< unknown unless the socket is established and a process has it
};

/// Reads one datagram of the kernel.
Answer readAnswer(const QByteArray &datagram, const Ends &ends, quint32 sequence);

/// The owner in a line of /proc/net/tcp or tcp6; nothing if it is a line about another socket.
std::optional<ClientOwner> readLine(const QByteArray &line, const Ends &ends);

/// Whether a map of users, as in /proc/self/uid_map, leaves none out.
bool mapsAllUsers(const QByteArray &map);

} // namespace bus::socketdiag
