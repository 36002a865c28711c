#include "net/socketdiag.h"

#include <QtCore/QList>

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>

namespace bus::socketdiag
{

namespace
{

constexpr std::array<quint8, 12> V4_PREFIX = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
constexpr size_t V4_OFFSET = V4_PREFIX.size();
constexpr quint64 ALL_USERS = 0xffffffff;

/// Columns of /proc/net/tcp, which white space separates.
enum Column {
    Number,
    Local,
    Remote,
    State,
    Queues,
    Timer,
    Retransmissions,
    UserId,
    Timeout,
    Inode
};

void setV4(End &end, const void *bytes)
{
    std::copy(V4_PREFIX.begin(), V4_PREFIX.end(), end.address.begin());
    std::memcpy(end.address.data() + V4_OFFSET, bytes, 4);
}

/// The place of an address in a request or an answer.
End endIn(quint8 family, const __be32 *address, quint16 port)
{
    End end;
    end.port = ntohs(port);
    if (family == AF_INET)
        setV4(end, address);
    else
        std::memcpy(end.address.data(), address, end.address.size());
    return end;
}

void putAddress(const End &end, bool asV4, __be32 *place)
{
    if (asV4)
        std::memcpy(place, end.address.data() + V4_OFFSET, 4);
    else
        std::memcpy(place, end.address.data(), end.address.size());
}

ClientOwner ownerOf(int state, quint32 userId, quint64 inode)
{
    ClientOwner owner;
    // A socket that its process has closed shows user 0, and no inode.
    if (state != TCP_ESTABLISHED || inode == 0)
        return owner;
    owner.kind = ClientOwner::User;
    owner.userId = userId;
    owner.socket = inode;
    return owner;
}

/// The number of the control group among the attributes from \a offset on; 0 if it is not there.
quint64 controlGroupIn(const QByteArray &datagram, int offset)
{
    while (offset + int(sizeof(rtattr)) <= datagram.size()) {
        rtattr attribute {};
        std::memcpy(&attribute, datagram.constData() + offset, sizeof(attribute));
        const int size = attribute.rta_len;
        quint64 group = 0;
        if (size < int(sizeof(attribute)) || size > datagram.size() - offset)
            break;
        if (attribute.rta_type == INET_DIAG_CGROUP_ID && size == int(RTA_LENGTH(sizeof(group)))) {
            std::memcpy(&group, datagram.constData() + offset + RTA_LENGTH(0), sizeof(group));
            return group;
        }
        offset += int(RTA_ALIGN(unsigned(size)));
    }
    return 0;
}

/// "0100007F:1F90": words of the address as numbers of this machine, and the port.
std::optional<End> endOf(const QByteArray &text)
{
    const int colon = text.indexOf(':');
    bool isValid = (colon == 8 || colon == 32) && text.size() == colon + 5;
    std::array<quint32, 4> words {};
    for (int i = 0; isValid && i < colon / 8; ++i)
        words[size_t(i)] = text.mid(8 * i, 8).toUInt(&isValid, 16);
    End end;
    if (isValid)
        end.port = text.mid(colon + 1).toUShort(&isValid, 16);
    if (!isValid)
        return std::nullopt;
    if (colon == 8)
        setV4(end, words.data());
    else
        std::memcpy(end.address.data(), words.data(), end.address.size());
    return end;
}

} // namespace

bool End::operator==(const End &other) const
{
    return address == other.address && port == other.port;
}

bool End::isV4() const
{
    return std::equal(V4_PREFIX.begin(), V4_PREFIX.end(), address.begin());
}

bool End::isLoopback() const
{
    constexpr quint8 V4_NETWORK = 127;
    constexpr std::array<quint8, 16> V6_ADDRESS = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return isV4() ? address[V4_OFFSET] == V4_NETWORK : address == V6_ADDRESS;
}

bool Ends::operator==(const Ends &other) const
{
    return local == other.local && remote == other.remote;
}

std::optional<End> endOf(const sockaddr_storage &address)
{
    End end;
    if (address.ss_family == AF_INET) {
        const auto &v4 = reinterpret_cast<const sockaddr_in &>(address);
        setV4(end, &v4.sin_addr);
        end.port = ntohs(v4.sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto &v6 = reinterpret_cast<const sockaddr_in6 &>(address);
        std::memcpy(end.address.data(), &v6.sin6_addr, end.address.size());
        end.port = ntohs(v6.sin6_port);
    } else {
        return std::nullopt;
    }
    return end;
}

QByteArray request(const Ends &ends, quint32 sequence)
{
    struct
    {
        nlmsghdr head;
        inet_diag_req_v2 body;
    } message {};
    const bool asV4 = ends.local.isV4() && ends.remote.isV4();
    message.head.nlmsg_len = sizeof(message);
    message.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.head.nlmsg_flags = NLM_F_REQUEST;
    message.head.nlmsg_seq = sequence;
    message.body.sdiag_family = asV4 ? AF_INET : AF_INET6;
    message.body.sdiag_protocol = IPPROTO_TCP;
    message.body.idiag_states = ~0U;
    inet_diag_sockid &id = message.body.id;
    id.idiag_sport = htons(ends.local.port);
    id.idiag_dport = htons(ends.remote.port);
    putAddress(ends.local, asV4, id.idiag_src);
    putAddress(ends.remote, asV4, id.idiag_dst);
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return {reinterpret_cast<const char *>(&message), int(sizeof(message))};
}

Answer readAnswer(const QByteArray &datagram, const Ends &ends, quint32 sequence)
{
    Answer answer;
    nlmsghdr head {};
    if (datagram.size() < int(sizeof(head)))
        return answer;
    std::memcpy(&head, datagram.constData(), sizeof(head));
    if (head.nlmsg_seq != sequence)
        return answer;
    answer.verdict = Answer::Refused;
    inet_diag_msg body {};
    constexpr int BODY_END = NLMSG_LENGTH(sizeof(body));
    if (head.nlmsg_type != SOCK_DIAG_BY_FAMILY || datagram.size() < BODY_END ||
        head.nlmsg_len != quint32(datagram.size()))
        return answer;
    std::memcpy(&body, datagram.constData() + NLMSG_HDRLEN, sizeof(body));
    const inet_diag_sockid &id = body.id;
    answer.verdict = Answer::Given;
    // The kernel may give a socket that listens in place of one that is gone.
    const Ends found = {endIn(body.idiag_family, id.idiag_src, id.idiag_sport),
                        endIn(body.idiag_family, id.idiag_dst, id.idiag_dport)};
    if (found == ends)
        answer.owner = ownerOf(body.idiag_state, body.idiag_uid, body.idiag_inode);
    if (answer.owner.kind == ClientOwner::User)
        answer.owner.controlGroup = controlGroupIn(datagram, BODY_END);
    return answer;
}

std::optional<ClientOwner> readLine(const QByteArray &line, const Ends &ends)
{
    const QList<QByteArray> columns = line.simplified().split(' ');
    if (columns.size() <= Inode)
        return std::nullopt;
    const std::optional<End> local = endOf(columns[Local]);
    const std::optional<End> remote = endOf(columns[Remote]);
    if (!local || !remote || !(Ends {*local, *remote} == ends))
        return std::nullopt;
    bool isNumber[] = {false, false, false};
    const ClientOwner owner =
        ownerOf(columns[State].toInt(&isNumber[0], 16), columns[UserId].toUInt(&isNumber[1]),
                columns[Inode].toULongLong(&isNumber[2]));
    const bool isSound =
        std::all_of(std::begin(isNumber), std::end(isNumber), [](bool is) { return is; });
    return isSound ? owner : ClientOwner();
}

bool mapsAllUsers(const QByteArray &map)
{
    quint64 users = 0;
    for (const QByteArray &line : map.split('\n'))
        users += line.simplified().split(' ').value(2).toULongLong();
    return users >= ALL_USERS;
}

} // namespace bus::socketdiag
