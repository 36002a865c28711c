#include <filelimit.h>
#include <rawpeer.h>
#include <slowdisk.h>
#include <testtable.h>

using namespace bus;

namespace
{

QByteArray publish(const QByteArray &name, const QByteArray &value, bool permanent = true)
{
    return "pub {'nm':'" + name + "','uid':'" + value.left(9) +
           "','dt':'1','opt':" + (permanent ? "6" : "2") + ",'cnt':{'v':'" + value + "'}}";
}

QByteArray message(const QByteArray &text)
{
    return "sendMessage {'r':'absent','ops':2,'msg':'" + text + "'}";
}

QByteArray load(const QByteArray &name)
{
    return "loadObject {'nm':'" + name + "'}";
}

QString answerOf(RawPeer &client)
{
    const QString status = client.receive();
    return status + QJsonDocument::fromVariant(client.data()).toJson(QJsonDocument::Compact);
}

} // namespace

/// Requests that a client sends without waiting for answers, most of which go to the disk.
class tst_Pipelining : public QObject
{
    Q_OBJECT

    /// Returns once the bus has handled what it handles of the client "me" before the disk goes on.
    static void awaitHandled(RawPeer &other)
    {
        for (int before = -1, handled = 0; before != handled;) {
            before = handled;
            other.ask("clients {}");
            handled = other.data()["clients"].toList().value(0).toMap()["in"].toInt();
        }
    }

    /// The answers to requests that were sent together or one by one, and what the bus still has
    /// when it has been started again.
    static QStringList outcome(const QByteArrayList &requests, bool together)
    {
        constexpr int MIB = 1024 * 1024;
        const QTemporaryDir folder;
        TrelanBusSettings settings;
        settings.setDataFolder(folder.path());
        settings.setMaxObjects(4);
        settings.setMaxClientMessages(3);
        QStringList outcome;
        {
            TestBus bus(settings);
            RawPeer client(bus, "me"), other(bus, "other");
            QByteArray frames;
            for (const QByteArray &request : requests)
                frames += RawPeer::frame(request);
            limitFiles(2 * MIB);
            auto stopped = slowdisk::stop();
            if (together && client.send(frames))
                awaitHandled(other);
            stopped.unlock();
            for (const QByteArray &request : requests) {
                if (together || client.send(RawPeer::frame(request)))
                    outcome << answerOf(client).remove(folder.path());
            }
            limitFiles(RLIM_INFINITY);
        }
        TestBus bus(settings);
        RawPeer client(bus, "me");
        for (const QByteArray request : {"loadObjects {'wc':'*'}", "clients {}"}) {
            client.send(RawPeer::frame(request));
            outcome << answerOf(client).remove(client.address());
        }
        return outcome;
    }

private Q_SLOTS:
    void asOneByOne_data()
    {
        const TestTable<QByteArrayList> row("requests");
        row("one name", {publish("a", "1"), publish("a", "2"), load("a"), publish("a", "3")});
        row("removed", {publish("a", "1"), "rm {'objects':['a']}", load("a"), publish("a", "2"),
                        publish("b", "1"), "rm {'objects':['b','a','c']}", publish("a", "3")});
        row("not permanent any more",
            {publish("a", "1"), publish("a", "2", false), load("a"), publish("a", "3"),
             publish("a", "4", false), publish("b", "1", false), load("b")});
        row("refused in between", {publish("a", "1"), "pub {'nm':''}", publish("b", "1"),
                                   "nonsense {}", "loadObject {}", publish("c", "1")});
        row("bound of objects",
            {publish("a", "1"), publish("b", "1"), publish("c", "1"), publish("d", "1"),
             publish("e", "1"), publish("a", "2"), "rm {'objects':['a']}", publish("e", "2")});
        row("bound of messages", {message("1"), publish("a", "1"), message("2"), message("3"),
                                  message("4"), publish("b", "1"), message("5")});
        const QByteArray large(3 << 20, 'x'); // is too large for the disk
        row("a commit fails", {publish("a", "1"), publish("b", large), publish("c", "1"),
                               message("1"), publish("a", large), load("a"), publish("b", "2")});
        row("a message fails", {message("1"), message(large), message("2"), publish("a", "1")});
        row("subscriptions", {publish("a", "1"), "sub {'wc':'a','now':true}", publish("a", "2"),
                              "unsub {'wc':'a'}", publish("a", "3")});
        QByteArrayList many;
        for (int i = 0; i < 600; ++i) // more than may be on their way
            many << publish("n" + QByteArray::number(i % 5), QByteArray::number(i));
        row("many", many);
    }

    void asOneByOne()
    {
        QFETCH(QByteArrayList, requests);
        QCOMPARE(outcome(requests, true).join('\n'), outcome(requests, false).join('\n'));
    }

    /// What a client sends behind a frame that ends its connection changes no answer before.
    void answersBeforeTheEnd_data()
    {
        const TestTable<QByteArray, QString> row("frame", "last");
        row("too large", "[-REQUEST-]\r\n999999999\r\n", "1 a ");
        row("malformed", "nonsense\r\n", "none");
    }

    void answersBeforeTheEnd()
    {
        QFETCH(QByteArray, frame);
        const QTemporaryDir folder;
        TrelanBusSettings settings;
        settings.setDataFolder(folder.path());
        TestBus bus(settings);
        RawPeer client(bus, "me"), other(bus, "other");
        auto stopped = slowdisk::stop();
        const QByteArray request = RawPeer::frame(publish("a", "1"));
        QVERIFY(client.send(request + request + frame));
        awaitHandled(other);
        stopped.unlock();
        QCOMPARE(client.receive(), "0 ");
        QCOMPARE(client.receive(), "0 ");
        QTEST(client.receive().left(4), "last");
    }
};

QTEST_GUILESS_MAIN(tst_Pipelining)
#include "tst_pipelining.moc"
