#include <backgroundworker.h>

#include <QtTest/QtTest>

#include <atomic>
#include <future>
#include <numeric>

using Worker = bus::BackgroundWorker<int, int>;
using Ints = std::vector<int>;

class tst_BackgroundWorker : public QObject
{
    Q_OBJECT

private slots:
    void batchesAndDrains();
    void takesResultsWhileWorking();
};

static Ints upTo(int count)
{
    Ints numbers(size_t(count), 0);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

void tst_BackgroundWorker::batchesAndDrains()
{
    std::vector<Ints> batches;
    std::promise<void> started;
    std::promise<void> released;
    int wakes = 0;
    Worker worker(
        [&](const Ints &jobs) {
            batches.push_back(jobs);
            if (batches.size() == 1) {
                started.set_value();
                released.get_future().wait();
            }
            return jobs;
        },
        [&wakes] { ++wakes; });
    worker.add(0);
    started.get_future().wait();
    for (int job = 1; job < 100; ++job)
        worker.add(job);
    QVERIFY(worker.takeResults().empty());
    released.set_value();
    worker.finish();

    // Plain variables of this thread: finish() has to order them, or tsan says so.
    QCOMPARE(batches.size(), size_t(2));
    QCOMPARE(batches.front(), Ints {0});
    QCOMPARE(wakes, 2);
    QCOMPARE(worker.takeResults(), upTo(100));
    QVERIFY(worker.takeResults().empty());
}

void tst_BackgroundWorker::takesResultsWhileWorking()
{
    constexpr int COUNT = 20000;
    std::atomic<int> wakes {0};
    Worker worker([](const Ints &jobs) { return jobs; }, [&wakes] { ++wakes; });
    Ints taken;
    const auto take = [&] {
        const Ints results = worker.takeResults();
        taken.insert(taken.end(), results.begin(), results.end());
    };
    for (int job = 0; job < COUNT; ++job) {
        worker.add(job);
        take();
    }
    // Results come before their wake: who takes them on every wake misses none.
    QDeadlineTimer deadline(30000);
    while (taken.size() < size_t(COUNT) && !deadline.hasExpired()) {
        if (wakes.exchange(0) > 0)
            take();
        std::this_thread::yield();
    }
    QCOMPARE(taken, upTo(COUNT));
}

QTEST_APPLESS_MAIN(tst_BackgroundWorker)
#include "tst_backgroundworker.moc"
