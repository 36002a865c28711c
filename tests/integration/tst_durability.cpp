#include <daemon.h>
#include <rawpeer.h>
#include <testtable.h>
#include <trelanqueryhandler.h>

#include <QtCore/QProcess>
#include <QtCore/QRandomGenerator>

#include <thread>

using namespace bus;

namespace
{

/// The daemon on a data folder and a free port.
struct Keeper : Daemon
{
    Keeper()
        : Daemon(TRELANBUSD)
    {}
    bool start(const QString &folder)
    {
        const bool started = Daemon::start({"--data", folder});
        TrelanQueryHandler::setQueryPort(queryPort);
        return started;
    }
};

constexpr int NAMES = 4;
constexpr int NONE = -1; // stands for an object that was removed, or was not permanent

TrelanMessage letter(const QString &text)
{
    TrelanMessage message;
    message.setReciever("inbox");
    message.setStored(true);
    message.setMessage(text);
    return message;
}

QVariantMap contentOf(int number)
{
    // The size differs from value to value, so that rows move between the pages of the database.
    return {{"number", number}, {"text", QString(number * 997 % 20000, QChar('a' + number % 26))}};
}

/// \brief Changes permanent objects that no other writer uses, one after the other, and now and
/// then sends a stored message, until the bus is gone.
///
/// Tells whether the bus has lost anything: it has to hold every acknowledged value. The last
/// change got no answer: its object may have the value before or after it.
struct Writer
{
    QString prefix;
    int number = 0;
    QVector<QSet<int>> possible = QVector<QSet<int>>(NAMES, {NONE});
    QSet<int> sent; // messages that the bus has acknowledged, and not delivered yet

    void run(QSemaphore &acknowledged)
    {
        TrelanQueryHandler client(prefix);
        for (bool done = client.open(); done;) {
            if (++number % 3 == 0) {
                done = client.sendMessage(letter(QString::number(number)));
                if (done)
                    sent.insert(number);
                acknowledged.release(int(done));
                continue;
            }
            const int name = number % NAMES;
            TrelanObject object;
            object.setName(prefix + QString::number(name));
            object.setContent(contentOf(number));
            object.setPermanent(number % 7 != 0);
            const bool removes = number % 5 == 0;
            const int value = removes || !object.isPermanent() ? NONE : number;
            possible[name].insert(value);
            done = removes ? client.rmPersistent({object.name()}) : client.publish(object);
            if (done)
                possible[name] = {value};
            acknowledged.release(int(done));
        }
    }

    /// Compares what the bus holds with what is possible, and takes it as the new beginning.
    /// Returns what is wrong with it.
    QString check(int name, const QMap<QString, TrelanObject> &objects)
    {
        const QString key = prefix + QString::number(name);
        const QVariantMap content = objects.value(key).content();
        const int found = objects.contains(key) ? content.value("number").toInt() : NONE;
        if (!possible[name].contains(found) || (found != NONE && content != contentOf(found)))
            return QString("%1 has number %2 of %3").arg(key).arg(found).arg(number);
        possible[name] = {found};
        return {};
    }
};

/// Takes all messages out of the inbox. Returns what is wrong with them.
QString checkInbox(const Daemon &daemon, TrelanQueryHandler &client, std::vector<Writer> &writers)
{
    RawPeer inbox;
    const QString end = QUuid::createUuid().toString(); // that of an earlier round may come again
    if (!client.sendMessage(letter(end)) || !inbox.connectTo(daemon.msgPort) ||
        inbox.ask("handshake {'name':'inbox'}") != "0 ")
        return "the inbox cannot be opened";
    QMap<QString, int> last;
    for (;;) {
        const QVariantMap message = inbox.receiveDelivery();
        const QString sender = message.value("s").toString();
        const QString text = message.value("msg").toString();
        if (message.isEmpty() || !inbox.acknowledge(message))
            return "the inbox is closed";
        if (text == end)
            break;
        for (Writer &writer : writers) {
            if (writer.prefix != sender)
                continue;
            if (text.toInt() <= last[sender] || text.toInt() > writer.number)
                return sender + text + " comes after " + QString::number(last[sender]);
            writer.sent.remove(last[sender] = text.toInt());
        }
    }
    for (const Writer &writer : writers) {
        if (!writer.sent.isEmpty())
            return QString("%1 of %2 are lost").arg(writer.sent.size()).arg(writer.prefix);
    }
    return {};
}

/// Publishes from several threads, ends the daemon at a random moment, and looks at what is left.
/// Returns what is wrong with that.
QString interrupt(const QString &folder, std::vector<Writer> &writers, int signal,
                  QRandomGenerator &random)
{
    Keeper daemon;
    if (!daemon.start(folder))
        return "does not start";
    QSemaphore acknowledged;
    std::vector<std::thread> threads;
    for (Writer &writer : writers) {
        writer.prefix = QString("writer%1.").arg(&writer - writers.data());
        threads.emplace_back([&] { writer.run(acknowledged); });
    }
    const bool busy = acknowledged.tryAcquire(random.bounded(4, 40), 20000);
    // The bus answers many requests at once: the daemon has to end at any moment between.
    const QDeadlineTimer moment(random.bounded(12), Qt::PreciseTimer);
    while (!moment.hasExpired())
        std::this_thread::yield();
    const int code = daemon.end(signal);
    for (std::thread &thread : threads)
        thread.join();

    if (!busy || code != (signal == SIGKILL ? -1 : 0))
        return QString("signal %1 ended it with %2").arg(signal).arg(code);

    Keeper after;
    TrelanQueryHandler client("reader");
    QMap<QString, TrelanObject> objects;
    if (!after.start(folder) || !client.open() || !client.loadObjects("*", objects))
        return "does not start again";
    for (Writer &writer : writers) {
        for (int name = 0; name < NAMES; ++name) {
            QString fault = writer.check(name, objects);
            if (!fault.isEmpty())
                return fault;
        }
    }
    return checkInbox(after, client, writers);
}

} // namespace

class tst_Durability : public QObject
{
    Q_OBJECT

private slots:
    void acknowledgedSurvivesEnd()
    {
        const int asked = qEnvironmentVariableIntValue("TRELAN_DURABILITY_ROUNDS");
        QRandomGenerator random(quint32(qEnvironmentVariableIntValue("TRELAN_DURABILITY_SEED")));
        const QTemporaryDir folder;
        std::vector<Writer> writers(4);
        for (int round = 0; round < (asked > 0 ? asked : 25); ++round) {
            const int signal = round % 8 == 3 ? SIGTERM : round % 8 == 7 ? SIGINT : SIGKILL;
            const QString fault = interrupt(folder.path(), writers, signal, random);
            QVERIFY2(fault.isEmpty(), qPrintable(QString("round %1: %2").arg(round).arg(fault)));
        }
    }

    void refusals_data()
    {
        const TestTable<QString, int, QString> row("arguments", "code", "text");
        row("version", "--version", 0, "^trelanbusd 1\\.2\\.1\n$");
        row("host name", "--host localhost", 2, "^trelanbusd: --host.*localhost");
        row("no option", "ports", 2, "^trelanbusd: unexpected argument 'ports'; see trelanbusd");
        row("unknown option", "--nonsense", 2, "^trelanbusd: unknown option '--nonsense'");
        row("no folder", "--data ", 2, "--data");
        row("limit too large", "--max-frame 2GiB", 2, "not in range 1 to 1073741824; see");
        row("folder", "--data /dev/null", 1, "/dev/null/trelan.db: the folder cannot");
        row("folder in use", "--data DATA", 1, "/trelan.db: .* in use by another");
        row("port in use", "--query-port PORT", 1, "127.0.0.1:\\d+: .*in use");
        row("port file", "--port-file /dev/null/port", 1, "/dev/null/port: \\w+");
    }

    void refusals()
    {
        QFETCH(QString, arguments);
        const QTemporaryDir folder;
        Keeper first;
        QVERIFY(first.start(folder.path()));
        arguments.replace("PORT", QString::number(TrelanQueryHandler::queryPort()));
        arguments.replace("DATA", folder.path());
        if (!arguments.contains("--query-port"))
            arguments += " --query-port 0 --msg-port 0";
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(TRELANBUSD, arguments.split(' '));
        QVERIFY(process.waitForFinished());
        QTEST(process.exitCode(), "code");
        QFETCH(QString, text);
        const QString printed = QString::fromUtf8(process.readAll());
        QVERIFY2(printed.contains(QRegularExpression(text)), qPrintable(printed));
    }
};

QTEST_GUILESS_MAIN(tst_Durability)
#include "tst_durability.moc"
