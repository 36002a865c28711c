#include "net/ownerlookup.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtNetwork/QHostAddress>

#include <linux/netlink.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace bus
{

namespace
{

using socketdiag::Answer;
using socketdiag::Ends;

// The kernel has answered before the call that asks returns, so that this is for a fault alone.
constexpr int WAIT_MS = 20;
constexpr size_t ANSWER_ROOM = 4096; // an answer has some hundred bytes
// What the kernel says in place of users that this process has no number for.
constexpr quint32 OVERFLOW_USER = 65534;

const QString V4_LIST = QStringLiteral("/proc/self/net/tcp");
const QString V6_LIST = QStringLiteral("/proc/self/net/tcp6");

bool seesAllUsers()
{
    QFile map(QStringLiteral("/proc/self/uid_map"));
    // A kernel without such maps has one set of users.
    return !map.open(QIODevice::ReadOnly) || socketdiag::mapsAllUsers(map.readAll());
}

ClientOwner findInList(const QString &path, const Ends &ends)
{
    QFile list(path);
    if (!list.open(QIODevice::ReadOnly))
        return {};
    for (QByteArray line = list.readLine(); !line.isEmpty(); line = list.readLine()) {
        if (const auto owner = socketdiag::readLine(line, ends))
            return *owner;
    }
    return {};
}

ClientOwner findInLists(const Ends &ends)
{
    ClientOwner owner;
    if (ends.local.isV4())
        owner = findInList(V4_LIST, ends);
    // A socket of IPv6 may have a connection of IPv4.
    return owner.kind == ClientOwner::Unknown ? findInList(V6_LIST, ends) : owner;
}

/// Whether the connection cannot have been ended by the other side and its ends been given to
/// another connection. To be asked when somebody was found.
bool isStillThere(int descriptor)
{
    tcp_info info {};
    socklen_t size = sizeof(info);
    return ::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           (info.tcpi_state == TCP_ESTABLISHED || info.tcpi_state == TCP_CLOSE_WAIT);
}

ClientOwner remoteOwner(const sockaddr_storage &peer, const socketdiag::End &end)
{
    ClientOwner owner;
    owner.kind = ClientOwner::Remote;
    QHostAddress address(reinterpret_cast<const sockaddr *>(&peer));
    if (end.isV4())
        address = QHostAddress(address.toIPv4Address());
    owner.address = address.toString();
    return owner;
}

} // namespace

OwnerLookup::OwnerLookup()
    : _descriptor(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG))
    , _canAsk(_descriptor >= 0 || QFile(V4_LIST).open(QIODevice::ReadOnly))
    , _mapsAllUsers(seesAllUsers())
{}

OwnerLookup::~OwnerLookup()
{
    if (_descriptor >= 0)
        ::close(_descriptor);
}

bool OwnerLookup::canAsk() const
{
    return _canAsk;
}

ClientOwner OwnerLookup::ownerOf(int descriptor)
{
    sockaddr_storage peer {};
    sockaddr_storage own {};
    socklen_t peerSize = sizeof(peer);
    socklen_t ownSize = sizeof(own);
    if (::getpeername(descriptor, reinterpret_cast<sockaddr *>(&peer), &peerSize) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<sockaddr *>(&own), &ownSize) != 0)
        return {};
    const auto local = socketdiag::endOf(peer);
    const auto remote = socketdiag::endOf(own);
    if (!local || !remote)
        return {};
    // A client of this machine may also come by one of the machine's own addresses.
    if (!local->isLoopback() && local->address != remote->address)
        return remoteOwner(peer, *local);
    if (!_canAsk) {
        ClientOwner untold;
        untold.kind = ClientOwner::Untold;
        return untold;
    }
    const ClientOwner owner = find({*local, *remote});
    if (owner.kind == ClientOwner::User && owner.userId == OVERFLOW_USER && !_mapsAllUsers)
        return {};
    return isStillThere(descriptor) ? owner : ClientOwner();
}

ClientOwner OwnerLookup::find(const Ends &ends)
{
    const Answer answer = ask(ends);
    if (answer.verdict == Answer::Given) {
        _isProven = true;
        return answer.owner;
    }
    // A kernel that cannot be asked so refuses in the same words as one that finds nothing.
    return _isProven && answer.verdict == Answer::Refused ? ClientOwner() : findInLists(ends);
}

Answer OwnerLookup::ask(const Ends &ends)
{
    const QByteArray request = socketdiag::request(ends, ++_sequence);
    if (_descriptor < 0 || ::send(_descriptor, request.constData(), size_t(request.size()), 0) < 0)
        return {};
    QElapsedTimer wait;
    wait.start();
    std::array<char, ANSWER_ROOM> room {};
    while (!wait.hasExpired(WAIT_MS)) {
        const ssize_t size = ::recv(_descriptor, room.data(), room.size(), 0);
        pollfd arrival {_descriptor, POLLIN, 0};
        if (size < 0 && ::poll(&arrival, 1, WAIT_MS) <= 0)
            return {};
        const auto datagram = QByteArray::fromRawData(room.data(), int(qMax<ssize_t>(size, 0)));
        Answer answer = socketdiag::readAnswer(datagram, ends, _sequence);
        if (answer.verdict != Answer::Foreign)
            return answer; // an answer that came too late was for an earlier request
    }
    return {};
}

} // namespace bus
