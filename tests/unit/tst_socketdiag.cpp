#include <net/ownerlookup.h>
#include <net/socketdiag.h>
#include <testtable.h>

#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <unistd.h>

using namespace bus;
using namespace bus::socketdiag;

namespace
{

/// "127.0.0.1:4660" or "[::1]:4660".
End end(const QString &text)
{
    const int colon = text.lastIndexOf(':');
    const QHostAddress host(text.left(colon).remove('[').remove(']'));
    const Q_IPV6ADDR bytes = host.toIPv6Address();
    End end;
    std::copy(std::begin(bytes.c), std::end(bytes.c), end.address.begin());
    end.port = text.mid(colon + 1).toUShort();
    return end;
}

/// "user 1000 socket 7 group 3", "unknown" or "nothing".
QString told(const std::optional<ClientOwner> &owner)
{
    if (!owner)
        return "nothing";
    if (owner->kind != ClientOwner::User)
        return owner->kindName();
    return QString("user %1 socket %2 group %3")
        .arg(owner->userId)
        .arg(owner->socket)
        .arg(owner->controlGroup);
}

const Ends V4 = {end("127.0.0.1:4660"), end("127.0.0.1:43535")};
const Ends V6 = {end("[::1]:4660"), end("[::1]:43535")};

// As a kernel 6.18 has answered, with marks where the rows differ.
const QByteArray ANSWER = "<size>000000<type>000000 07000000 01020000" // head; sequence 7
                          "<family><state>0000 1234aa0f"               // ports 4660 and 43535
                          "7f000001000000000000000000000000"
                          "7f000001000000000000000000000000"
                          "00000000 0000000000000000"
                          "00000000 00000000 00000000 <user>0000 <inode>0000"
                          "0500080000000000 <attribute>1500 0901000000000000";

} // namespace

/// Which socket of this machine belongs to whom, from what the kernel says.
class tst_SocketDiag : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsAnswers_data()
    {
        QTest::addColumn<QByteArrayList>("marks");
        QTest::addColumn<QString>("owner");
        const auto row = [](const char *name, const QByteArrayList &marks, const char *owner) {
            QTest::newRow(name) << marks << owner;
        };
        const QByteArray user = "<user>=e803", inode = "<inode>=0500";
        row("a user", {user, inode}, "given: user 1000 socket 5 group 265");
        row("root", {"<user>=0000", inode}, "given: user 0 socket 5 group 265");
        row("no such attribute", {user, inode, "<attribute>=0400"},
            "given: user 1000 socket 5 group 0");
        row("attribute past the end", {user, inode, "<attribute>=ff7f"},
            "given: user 1000 socket 5 group 0");
        row("attribute without end", {user, inode, "<attribute>=0000"},
            "given: user 1000 socket 5 group 0");
        row("closed by its process", {"<user>=0000", "<inode>=0000"}, "given: unknown");
        row("half closed", {user, inode, "<state>=05"}, "given: unknown");
        row("waits for its end", {user, inode, "<state>=06"}, "given: unknown");
        row("listens", {user, inode, "<state>=0a"}, "given: unknown");
        row("another socket", {user, inode, "1234aa0f=1235aa0f"}, "given: unknown");
        row("another family", {user, inode, "<family>=0a"}, "given: unknown");
        row("not found", {user, inode, "<type>=02"}, "refused: unknown");
        row("another size", {user, inode, "<size>=6d"}, "refused: unknown");
        row("an older answer", {user, inode, "07000000=06000000"}, "foreign: unknown");
    }

    void readsAnswers()
    {
        QFETCH(QByteArrayList, marks);
        QFETCH(QString, owner);
        QByteArray hex = ANSWER;
        for (const QByteArray &mark :
             marks + QByteArrayList {"<size>=6c", "<type>=14", "<family>=02", "<state>=01",
                                     "<attribute>=0c00"})
            hex.replace(mark.left(mark.indexOf('=')), mark.mid(mark.indexOf('=') + 1));
        const QByteArray datagram = QByteArray::fromHex(hex);
        const auto shown = [](const Answer &answer) {
            const char *const verdicts[] = {"foreign", "refused", "given"};
            return QString("%1: %2").arg(verdicts[answer.verdict], told(answer.owner));
        };
        QCOMPARE(shown(readAnswer(datagram, V4, 7)), owner);
        for (int size = 0; size < datagram.size(); ++size) // a part says nothing
            QCOMPARE(told(readAnswer(datagram.left(size), V4, 7).owner), "unknown");
    }

    void readsLines_data()
    {
        QTest::addColumn<bool>("isV6");
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("owner");
        const QByteArray v4 = "  59: 0100007F:1234 0100007F:AA0F ";
        const QByteArray mapped = "0: 0000000000000000FFFF00000100007F:1234 "
                                  "0000000000000000FFFF00000100007F:AA0F ";
        const QByteArray v6 = "0: 00000000000000000000000001000000:1234 "
                              "00000000000000000000000001000000:AA0F ";
        const QByteArray rest = "01 00000000:00000000 00:00000000 00000000  1000        0 5 2 00";
        QTest::newRow("IPv4") << false << v4 + rest << "user 1000 socket 5 group 0";
        QTest::newRow("IPv4 by IPv6") << false << mapped + rest << "user 1000 socket 5 group 0";
        QTest::newRow("IPv6") << true << v6 + rest << "user 1000 socket 5 group 0";
        QTest::newRow("closed") << false << v4 + "06 0:0 03:1 0        0        0 0 3 0"
                                << "unknown";
        QTest::newRow("no number") << false << v4 + "01 0:0 00:0 0 me 0 5 2 0"
                                   << "unknown";
        QTest::newRow("our own end")
            << false << "0: 0100007F:AA0F 0100007F:1234 " + rest << "nothing";
        QTest::newRow("no address")
            << false << "0: 0100007X:1234 0100007F:AA0F " + rest << "nothing";
        QTest::newRow("heading") << false << QByteArray("  sl  local_address rem_address   st")
                                 << "nothing";
    }

    void readsLines()
    {
        QFETCH(bool, isV6);
        QFETCH(QByteArray, line);
        QTEST(told(readLine(line, isV6 ? V6 : V4)), "owner");
    }

    void knowsLoopback()
    {
        for (const char *text : {"127.0.0.1:1", "127.9.9.9:1", "[::ffff:127.0.0.1]:1", "[::1]:1"})
            QVERIFY2(end(text).isLoopback(), text);
        for (const char *text : {"126.0.0.1:1", "[::2]:1", "[::]:1", "[fe80::1]:1"})
            QVERIFY2(!end(text).isLoopback(), text);
    }

    void knowsMapsOfUsers()
    {
        QVERIFY(mapsAllUsers("         0          0 4294967295\n"));
        QVERIFY(mapsAllUsers("0 0 1000\n1000 1000 4294966295\n"));
        QVERIFY(!mapsAllUsers("0 0 1\n65534 65534 1\n"));
        QVERIFY(!mapsAllUsers(""));
    }

    void asksThisKernel_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("IPv4") << "127.0.0.1";
        QTest::newRow("IPv4 by IPv6") << "::ffff:127.0.0.1";
        QTest::newRow("IPv6") << "::1";
    }

    void asksThisKernel()
    {
        QFETCH(QString, host);
        QTcpServer server;
        if (!server.listen(host == "::1" ? QHostAddress(host) : QHostAddress(QHostAddress::Any)))
            SKIP_TEST("this machine has no such address");
        OwnerLookup lookup;
        QTcpSocket client;
        client.connectToHost(QHostAddress(host), server.serverPort());
        QVERIFY(client.waitForConnected() && server.waitForNewConnection(5000));
        QTcpSocket *const accepted = server.nextPendingConnection();
        const ClientOwner owner = lookup.ownerOf(int(accepted->socketDescriptor()));
        QCOMPARE(owner.kindName(), "user");
        QCOMPARE(owner.userId, ::geteuid());
        // The list of sockets, which stands in where the kernel cannot be asked, says so, too.
        const Ends ends = {end(QString("[%1]:%2").arg(host).arg(client.localPort())),
                           end(QString("[%1]:%2").arg(host).arg(server.serverPort()))};
        QStringList listed;
        for (const char *path : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
            QFile list(path);
            QVERIFY(list.open(QIODevice::ReadOnly));
            for (const QByteArray &line : list.readAll().split('\n')) {
                if (const auto found = readLine(line, ends))
                    listed += told(found);
            }
        }
        QCOMPARE(
            listed,
            QStringList(QString("user %1 socket %2 group 0").arg(owner.userId).arg(owner.socket)));
        client.abort();
        QCOMPARE(lookup.ownerOf(int(accepted->socketDescriptor())).kindName(), "unknown");
    }
};

QTEST_GUILESS_MAIN(tst_SocketDiag)
#include "tst_socketdiag.moc"
