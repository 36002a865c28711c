#include "storage/backgroundworker.h"

#include <QtTest/QtTest>

#include <future>

class tst_BackgroundWorker : public QObject
{
    Q_OBJECT

private slots:
    void inOrderTogetherAndToTheEnd()
    {
        using Ints = std::vector<int>;
        constexpr int COUNT = 20000;
        // Both threads use plain variables: unless the class orders their uses, tsan reports a
        // race.
        Ints firstBatch, secondBatch, taken, expected;
        std::promise<void> started, released;
        int wakes = 0;
        bus::BackgroundWorker<int, int> worker(
            [&](const Ints &jobs) {
                if (firstBatch.empty()) {
                    firstBatch = jobs;
                    started.set_value();
                    released.get_future().wait();
                } else if (secondBatch.empty()) {
                    secondBatch = jobs;
                }
                return jobs;
            },
            [&wakes] { ++wakes; });
        for (int job = 0; job < COUNT; ++job) {
            worker.add(job);
            expected.push_back(job);
            if (job == 0)
                started.get_future().wait(); // the worker is busy from here on
            if (job == 99)
                released.set_value();
            const Ints results = worker.takeResults();
            taken.insert(taken.end(), results.begin(), results.end());
            QVERIFY(job >= 99 || taken.empty());
        }
        worker.finish();
        const Ints results = worker.takeResults();
        taken.insert(taken.end(), results.begin(), results.end());
        QCOMPARE(taken, expected);
        QCOMPARE(firstBatch, Ints {0});
        QVERIFY(secondBatch.size() >= 99);
        QVERIFY(wakes >= 2);
    }
};

QTEST_APPLESS_MAIN(tst_BackgroundWorker)
#include "tst_backgroundworker.moc"
