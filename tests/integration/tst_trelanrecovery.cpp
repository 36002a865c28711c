#undef QT_NO_CAST_FROM_ASCII // all texts of this file are ASCII

#include <daemon.h>
#include <transport.h>
#include <trelancontroller.h>
#include <trelanmsgworker.h>
#include <trelanqueryworker.h>

#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <memory>

using namespace bus;

namespace
{

struct Killer
{
    void operator()(QProcess *process) const
    {
        process->kill();
        process->waitForFinished();
        delete process;
    }
};
using Process = std::unique_ptr<QProcess, Killer>;

constexpr int PACE_MS = 15; // both senders together send more than a receiver reads
constexpr int WINDOW = 64;
const QString RECEIVER = "receiver";

/// Prints a line with one write, so that a killed process leaves whole lines.
void say(const QString &line)
{
    std::fprintf(stdout, "%s\n", qPrintable(line));
    std::fflush(stdout);
}

/// A client that runs as a separate process. It prints what arrives at once, in the worker's
/// thread, so that each line stands for what an application has seen.
class Client : public TrelanController
{
public:
    using TrelanController::TrelanController;

protected:
    bool doStart() override
    {
        return initWorkers(new TrelanMsgWorker(clientName()),
                           new TrelanQueryWorker(clientName(), {}));
    }
    void prepareMsgWorker(TrelanMsgWorker *worker) override
    {
        connect(worker, &TrelanMsgWorker::workerConnected, worker, [] { say("connected"); });
        connect(worker, &TrelanMsgWorker::unprocessedMessage, worker, [](const TrelanMessage &msg) {
            say(QString("%1 %2").arg(msg.sender(), msg.message()));
        });
    }
};

/// Runs this program as a client. The arguments are a name, the ports, and, for a client that
/// sends, the number to start with.
int runClient(const QStringList &arguments)
{
    Client client(arguments.at(1));
    QTimer timer;
    int number = arguments.value(4).toInt();
    QObject::connect(&timer, &QTimer::timeout, &client, [&] {
        TrelanMessage message;
        message.setReciever(RECEIVER);
        message.setStored(true);
        message.setMessage(QString::number(++number));
        emit client.sendMessage(message);
    });
    if (arguments.size() > 4)
        timer.start(PACE_MS);
    client.setBus("127.0.0.1", arguments.at(2).toUShort(), arguments.at(3).toUShort());
    return QCoreApplication::exec();
}

/// What the receiver has seen of each sender: ever, and on its last connection.
struct Account
{
    int connections = 0;
    QHash<QString, QMap<int, int>> seen;
    QHash<QString, QList<int>> current;
    int seenAgain = 0; // messages of an earlier connection that came again
    QString fault;

    void take(const QString &line)
    {
        if (line == "connected") {
            ++connections;
            current.clear();
            return;
        }
        const QString sender = line.section(' ', 0, 0);
        const int number = line.section(' ', 1).toInt();
        if (!current[sender].isEmpty() && number <= current[sender].last())
            fault = QString("%1 comes late: %2").arg(number).arg(sender);
        seenAgain += seen[sender][number]++;
        current[sender].append(number);
    }
    void takeAll(QProcess &receiver)
    {
        while (receiver.canReadLine())
            take(QString::fromUtf8(receiver.readLine()).trimmed());
    }
    /// Numbers between the first and the last seen one that never came.
    int missing(const QString &sender) const
    {
        const QMap<int, int> numbers = seen.value(sender);
        return numbers.lastKey() - numbers.firstKey() + 1 - numbers.size();
    }
};

} // namespace

class tst_TrelanRecovery : public QObject
{
    Q_OBJECT

    Daemon _server {TRELANBUSD};

    Process startClient(const QStringList &arguments)
    {
        auto process = Process(new QProcess);
        const QStringList ports {QString::number(_server.msgPort),
                                 QString::number(_server.queryPort)};
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process->start(QCoreApplication::applicationFilePath(),
                       arguments.mid(0, 1) + ports + arguments.mid(1));
        return process;
    }

    /// Waits until messages of both senders flow on the receiver's connection number
    /// \a connections.
    static bool awaitBoth(QProcess &receiver, Account &account, int connections)
    {
        const QDeadlineTimer deadline(30000);
        const auto flows = [&](const char *name) { return account.current[name].size() >= 100; };
        while (account.connections < connections || !flows("a") || !flows("b")) {
            if (!receiver.canReadLine() &&
                !receiver.waitForReadyRead(int(deadline.remainingTime())))
                return false;
            account.takeAll(receiver);
        }
        return true;
    }

private Q_SLOTS:
    void killedUnderLoad_data()
    {
        QTest::addColumn<bool>("killsReceiver");
        QTest::newRow("server") << false;
        QTest::newRow("receiver") << true;
    }

    /// Within a connection no message comes twice, and those of each sender keep their order. On
    /// the next connection at most as many come again as may be unacknowledged.
    void killedUnderLoad()
    {
        QFETCH(bool, killsReceiver);
        _server.end(SIGKILL);
        QVERIFY(_server.start());
        auto receiver = startClient({RECEIVER});
        const auto a = startClient({"a", "0"}), b = startClient({"b", "0"});
        Account account;
        QVERIFY(awaitBoth(*receiver, account, 1));
        if (killsReceiver) {
            receiver->kill();
            QVERIFY(receiver->waitForFinished());
            account.takeAll(*receiver);
            receiver = startClient({RECEIVER});
        } else {
            _server.end(SIGKILL);
            QVERIFY(_server.start());
        }
        QVERIFY(awaitBoth(*receiver, account, 2));
        const int missing = account.missing("a") + account.missing("b");
        qInfo("%d seen again, %d messages missing", account.seenAgain, missing);
        QCOMPARE(account.fault, QString());
        QVERIFY(account.seenAgain <= (killsReceiver ? WINDOW : 0));
        // The bus keeps what waits for a receiver; only the message being taken may be lost.
        QVERIFY(!killsReceiver || missing <= 1);
    }
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    // QtTest's arguments begin with a dash or name a function; others are those of a client.
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() >= 4 && arguments.at(3).toUShort() != 0)
        return runClient(arguments);
    tst_TrelanRecovery test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_trelanrecovery.moc"
