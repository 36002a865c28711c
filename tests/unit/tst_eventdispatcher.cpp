#include "net/buslistener.h"
#include <eventdispatcher.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <utility>
#include <vector>

using bus::BusListener;
using bus::EventDispatcher;

namespace
{

/// The dispatcher that this program runs on.
EventDispatcher *_dispatcher = nullptr;

/// Two ends of a connection.
struct Pair
{
    Pair() { ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends); }
    ~Pair()
    {
        closeEnd(0);
        closeEnd(1);
    }
    Q_DISABLE_COPY(Pair)

    void closeEnd(int end)
    {
        if (ends[end] >= 0)
            ::close(std::exchange(ends[end], -1));
    }
    void write(int end) const { QCOMPARE(::write(ends[end], "x", 1), 1); }
    void read(int end) const
    {
        char byte = 0;
        QCOMPARE(::read(ends[end], &byte, 1), 1);
    }

    int ends[2] {-1, -1};
};

/// Runs one turn of the loop, without waiting.
void turn()
{
    QCoreApplication::processEvents();
}

} // namespace

class tst_EventDispatcher : public QObject
{
    Q_OBJECT

private slots:
    void timersInTheirOrder()
    {
        QVector<int> order;
        QElapsedTimer clock;
        clock.start();
        QEventLoop loop;
        const QSignalSpy blocks(_dispatcher, &EventDispatcher::aboutToBlock);
        const QSignalSpy awakes(_dispatcher, &EventDispatcher::awake);
        for (const int milliseconds : {30, 0, 20, 10}) {
            QTimer::singleShot(milliseconds, Qt::PreciseTimer, this, [&, milliseconds] {
                order.append(milliseconds);
                QVERIFY(clock.elapsed() >= milliseconds);
                if (milliseconds == 30)
                    loop.quit();
            });
        }
        loop.exec();
        QCOMPARE(order, QVector<int>({0, 10, 20, 30}));
        QVERIFY(blocks.count() > 0);
        QCOMPARE(blocks.count(), awakes.count());
    }

    void timersAreToldOf()
    {
        QTimer timer;
        timer.start(50000);
        QVERIFY(timer.remainingTime() > 40000 && timer.remainingTime() <= 50000);
        QCOMPARE(_dispatcher->registeredTimers(&timer).size(), 1);
        QCOMPARE(_dispatcher->registeredTimers(&timer).first().interval, 50000);
        const int id = timer.timerId();
        timer.stop();
        QCOMPARE(_dispatcher->remainingTime(id), -1);
        QVERIFY(_dispatcher->registeredTimers(&timer).isEmpty());

        auto object = std::make_unique<QObject>();
        object->startTimer(1);
        object->startTimer(50000);
        QVERIFY(_dispatcher->unregisterTimers(object.get()));
        QVERIFY(!_dispatcher->unregisterTimers(object.get()));
        turn();
        QVERIFY(!_dispatcher->processEvents({})); // there is nothing to do
    }

    void aTimerOfNoTimeRunsOnceATurn()
    {
        int runs = 0;
        QTimer again;
        connect(&again, &QTimer::timeout, this, [&runs] { ++runs; });
        again.start(0);
        for (int turns = 1; turns <= 5; ++turns) {
            QVERIFY(_dispatcher->hasPendingEvents());
            turn();
            QCOMPARE(runs, turns);
        }
    }

    void timersThatOthersEnd()
    {
        QTimer first;
        std::unique_ptr<QTimer> second = std::make_unique<QTimer>();
        int runs = 0;
        const auto endTheOther = [&] {
            ++runs;
            second.reset();
            first.stop();
        };
        connect(&first, &QTimer::timeout, this, endTheOther);
        connect(second.get(), &QTimer::timeout, this, endTheOther);
        first.start(0);
        second->start(0);
        turn();
        turn();
        QCOMPARE(runs, 1);
    }

    void aTimerThatWasMissedDoesNotMakeUpForIt()
    {
        int runs = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&runs] { ++runs; });
        timer.start(400);
        QElapsedTimer clock;
        clock.start();
        while (!clock.hasExpired(900)) // the loop stands still
            QThread::yieldCurrentThread();
        turn();
        turn();
        QCOMPARE(runs, 1);
    }

    void notifiersOfOneDescriptor()
    {
        Pair pair;
        QString told;
        QSocketNotifier read(pair.ends[0], QSocketNotifier::Read);
        QSocketNotifier write(pair.ends[0], QSocketNotifier::Write);
        connect(&read, &QSocketNotifier::activated, this, [&told] { told += 'r'; });
        connect(&write, &QSocketNotifier::activated, this, [&told] { told += 'w'; });
        const auto afterATurn = [&told] {
            told.clear();
            turn();
            return told;
        };

        QCOMPARE(afterATurn(), "w");
        pair.write(1);
        QCOMPARE(afterATurn(), "rw");
        QCOMPARE(afterATurn(), "rw"); // the bytes are still unread
        write.setEnabled(false);
        QCOMPARE(afterATurn(), "r");
        QVERIFY(_dispatcher->hasPendingEvents());
        pair.read(0);
        QCOMPARE(afterATurn(), "");
        read.setEnabled(false);
        pair.write(1);
        QCOMPARE(afterATurn(), "");
        read.setEnabled(true);
        QCOMPARE(afterATurn(), "r");
        pair.read(0);
        pair.closeEnd(1); // an end is something to read
        QCOMPARE(afterATurn(), "r");
    }

    void notifiersThatOthersEnd()
    {
        Pair one;
        Pair other;
        one.write(1);
        other.write(1);
        int told = 0;
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers;
        for (const Pair *pair : {&one, &other}) {
            for (const auto type : {QSocketNotifier::Read, QSocketNotifier::Write}) {
                notifiers.push_back(std::make_unique<QSocketNotifier>(pair->ends[0], type));
                connect(notifiers.back().get(), &QSocketNotifier::activated, this, [&] {
                    ++told;
                    for (auto &notifier : notifiers)
                        notifier->setEnabled(false);
                });
            }
        }
        turn();
        turn();
        QCOMPARE(told, 1);
    }

    void whatIsWatchedWithoutNotifiers()
    {
        Pair pair;
        QVector<QPair<quint64, quint32>> told;
        _dispatcher->setHandler([&](quint64 id, quint32 events) {
            told.append({id, events});
            pair.read(0);
        });
        QVERIFY(_dispatcher->poller().watch(pair.ends[0], 7, EPOLLIN));
        turn();
        QVERIFY(told.isEmpty());
        pair.write(1);
        turn();
        _dispatcher->poller().change(pair.ends[0], 8, EPOLLIN | EPOLLOUT);
        pair.write(1);
        turn();
        _dispatcher->poller().forget(pair.ends[0]);
        pair.write(1);
        turn();
        QCOMPARE(told, (QVector<QPair<quint64, quint32>> {{7, EPOLLIN}, {8, EPOLLIN | EPOLLOUT}}));
    }

    /// A listener gets no more turns than any other descriptor that is ready: in one turn it has to
    /// take all connections that wait.
    void aCrowdIsTakenAmongBusyConnections()
    {
        constexpr int CROWD = 8;
        Pair busy;
        busy.write(1);
        _dispatcher->setHandler([](quint64, quint32) {});
        std::vector<int> ready;
        for (int i = 0; i < 2 * bus::Poller::MAX_EVENTS; ++i) {
            ready.push_back(::dup(busy.ends[0]));
            QVERIFY(_dispatcher->poller().watch(ready.back(), quint64(i), EPOLLIN));
        }

        BusListener listener;
        int taken = 0;
        connect(&listener, &BusListener::descriptorArrived, this, [&taken](qintptr descriptor) {
            ++taken;
            ::close(int(descriptor));
        });
        QVERIFY(listener.listen(QHostAddress::LocalHost, 0));
        std::array<QTcpSocket, CROWD> crowd;
        for (QTcpSocket &one : crowd) {
            one.connectToHost(QHostAddress::LocalHost, listener.serverPort());
            QVERIFY(one.waitForConnected());
        }
        for (int turns = 0; turns < 4; ++turns)
            turn();
        for (const int descriptor : ready) {
            _dispatcher->poller().forget(descriptor);
            ::close(descriptor);
        }
        QCOMPARE(taken, CROWD);
    }

    void eventsOfOtherThreadsWakeIt()
    {
        constexpr int THREADS = 4;
        constexpr int EACH = 2000;
        int arrived = 0;
        QEventLoop loop;
        std::vector<std::unique_ptr<QThread>> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back(QThread::create([&] {
                for (int n = 0; n < EACH; ++n) {
                    const auto arrive = [&] {
                        if (++arrived == THREADS * EACH)
                            loop.quit();
                    };
                    QMetaObject::invokeMethod(this, arrive, Qt::QueuedConnection);
                    if (n % 16 == 0) // the other thread falls asleep in between
                        QThread::yieldCurrentThread();
                }
            }));
            threads.back()->start();
        }
        loop.exec(); // sleeps for good if one wake-up is lost
        for (const auto &thread : threads)
            QVERIFY(thread->wait());
        QCOMPARE(arrived, THREADS * EACH);
    }

    void aThreadOfItsOwnEnds()
    {
        for (int i = 0; i < 200; ++i) {
            auto dispatcher = std::make_unique<EventDispatcher>();
            QVERIFY(dispatcher->open());
            QThread thread;
            thread.setEventDispatcher(dispatcher.release());
            thread.start();
            thread.quit(); // the thread may wait already, or not have begun
            QVERIFY(thread.wait());
        }
    }
};

int main(int argc, char *argv[])
{
    _dispatcher = new EventDispatcher; // the application deletes it
    if (!_dispatcher->open())
        return 1;
    QCoreApplication::setEventDispatcher(_dispatcher);
    QCoreApplication app(argc, argv);
    tst_EventDispatcher test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_eventdispatcher.moc"
