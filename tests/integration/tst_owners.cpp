#include <logcapture.h>
#include <rawpeer.h>
#include <testtable.h>
#include <trelanbus.h>

#include <QtCore/QCoreApplication>

#include <arpa/inet.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

using namespace bus;

namespace
{

constexpr uid_t ALICE = 12345; // a user without a name
constexpr uid_t BOB = 12346;

/// A peer whose socket is made by a user. Only root can make sockets of others.
std::unique_ptr<RawPeer> peerOf(uid_t user, quint16 port)
{
    const auto before = uid_t(::setfsuid(user)); // of this thread
    auto peer = std::make_unique<RawPeer>(port);
    ::setfsuid(before);
    return peer;
}

/// A socket that listens, so that connections wait in it before there is a bus.
struct Listening
{
    const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
    quint16 port = 0;

    Listening()
    {
        sockaddr_in at {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof at;
        auto *const address = reinterpret_cast<sockaddr *>(&at);
        if (::bind(descriptor, address, size) == 0 && ::listen(descriptor, SOMAXCONN) == 0 &&
            ::getsockname(descriptor, address, &size) == 0)
            port = ntohs(at.sin_port);
    }
    ~Listening() { ::close(descriptor); }
    Q_DISABLE_COPY(Listening)
};

} // namespace

/// Who has made a connection, and what that keeps from others.
class tst_Owners : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void takesOver_data()
    {
        const TestTable<QString, uid_t, bool> row("channels", "newcomer", "isAccepted");
        for (const char *channels :
             {"query query", "query message", "message query", "message message"}) {
            row(qPrintable(QString("same user, %1").arg(channels)), channels, ALICE, true);
            row(qPrintable(QString("another user, %1").arg(channels)), channels, BOB, false);
            row(qPrintable(QString("root, %1").arg(channels)), channels, 0, true);
        }
    }

    void takesOver()
    {
        if (::geteuid() != 0)
            SKIP_TEST("only root can connect as several users");
        QFETCH(QString, channels);
        QFETCH(uid_t, newcomer);
        QFETCH(bool, isAccepted);
        const QByteArray handshake = "handshake {'name':'thermostat'}";
        LogCapture log;
        TestBus server;
        const auto port = [&](const QString &channel) {
            return channel == "query" ? server.queryPort() : server.msgPort();
        };
        const QStringList names = channels.split(' ');
        const auto holder = peerOf(ALICE, port(names[0]));
        QCOMPARE(holder->ask(handshake), "0 ");
        const auto taker = peerOf(newcomer, port(names[1]));
        const char *const refusal = "3 client \"thermostat\" belongs to user 12345";
        QCOMPARE(taker->ask(handshake), isAccepted ? "0 " : refusal);
        const QString lines = log.texts().join('\n');
        QVERIFY2(lines.contains(isAccepted ? "is connected from " : "is refused: client "),
                 qPrintable(lines));
        if (!isAccepted || names[0] != names[1])
            QCOMPARE(holder->ask(handshake), "0 "); // still there
        else
            QVERIFY(holder->awaitEnd());
    }

    void freesTheNameOfWhoHasGone()
    {
        if (::geteuid() != 0)
            SKIP_TEST("only root can connect as several users");
        TestBus server;
        for (int i = 0; i < 50; ++i) { // the end and the handshake arrive in any order
            for (const uid_t user : {ALICE, BOB}) {
                auto query = peerOf(user, server.queryPort());
                auto messages = peerOf(user, server.msgPort());
                QCOMPARE(messages->ask("handshake {'name':'me'}"), "0 ");
                QCOMPARE(query->ask("handshake {'name':'me'}"), "0 ");
                QCOMPARE(query->ask("clients {}"), "0 ");
                const QVariantMap me = query->data()["clients"].toList().value(0).toMap();
                QCOMPARE(me["userId"].toUInt(), user);
                QCOMPARE(me["connections"].toStringList().size(), 2);
                QCOMPARE(me["subscriptions"], 0);
                QCOMPARE(query->ask("sub {'wc':'*'}"), "0 ");
            }
        }
    }

    void whoClosesBeforeIsNobody()
    {
        const Listening listening;
        TrelanBusSettings settings;
        settings.setQueryDescriptor(listening.descriptor);
        settings.setMaxConnections(5000);
        const QByteArray handshake = "handshake {'name':'victim'}";
        RawPeer victim(listening.port);
        QVERIFY(victim.send(RawPeer::frame(handshake)));
        for (int i = 0; i < 1000; ++i) {
            RawPeer peer(listening.port);
            const bool asVictim = i % 2 == 1;
            QVERIFY(peer.send(
                RawPeer::frame("handshake", {{"name", asVictim ? "victim" : QString::number(i)}})));
            if (i % 7 == 6)
                peer.endWithReset();
        }
        LogCapture log;
        TestBus server(settings);
        QCOMPARE(victim.receive(), "0 ");
        const RawPeer last(server, "last"); // comes behind all others
        QCOMPARE(victim.ask("clients {}"), "0 ");
        const QStringList connected = log.texts().filter(" is connected from ");
        QVERIFY2(connected.size() > 400, qPrintable(connected.join('\n')));
        for (const QString &line : connected) {
            const bool isThere = line.contains(victim.address()) || line.contains("\"last\"");
            const QString owner = isThere ? RawPeer::owner() : QString("an unknown user");
            QVERIFY2(line.contains(QString(" (%1) ").arg(owner)), qPrintable(line));
        }
    }

    void showsTheOwner()
    {
        TestBus server;
        RawPeer peer(server, "me");
        QCOMPARE(peer.ask("clients {}"), "0 ");
        const QVariantMap me = peer.data()["clients"].toList().value(0).toMap();
        QCOMPARE(me["owner"], "user");
        QCOMPARE("user " + me["user"].toString(), RawPeer::owner());
        QCOMPARE(me["userId"].toUInt(), ::geteuid());
        QVERIFY(!me["groups"].toStringList().isEmpty());
        QCOMPARE(me["process"].toInt(), int(QCoreApplication::applicationPid()));
        QCOMPARE(me["program"], "tst_owners");
    }

    void admitsTheUserAlone()
    {
        TrelanBusSettings settings;
        settings.setAdmission(TrelanBusSettings::Me);
        TestBus server(settings);
        RawPeer me(server);
        QCOMPARE(me.ask("handshake {'name':'me'}"), "0 ");
        if (::geteuid() != 0)
            SKIP_TEST("only root can connect as several users");
        for (const quint16 port : {server.queryPort(), server.msgPort()}) {
            const auto other = peerOf(ALICE, port);
            QCOMPARE(other->ask("handshake {'name':'other'}"),
                     "3 this bus takes no clients of user 12345");
        }
    }

    void warnsBeyondThisMachine()
    {
        LogCapture log;
        TrelanBusSettings settings;
        TestBus inside(settings);
        QCOMPARE(log.faults(), QStringList());
        settings.setHost(QHostAddress::AnyIPv4);
        TestBus outside(settings);
        QCOMPARE(log.faults().size(), 1);
        QVERIFY(log.faults()[0].contains("listens on 0.0.0.0, beyond this machine: whoever "));
    }
};

QTEST_GUILESS_MAIN(tst_Owners)
#include "tst_owners.moc"
