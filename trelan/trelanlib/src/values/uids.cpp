#include "values/uids.h"

#include <QtCore/QMutex>
#include <QtCore/QQueue>
#include <QtCore/QSet>
#include <QtCore/QThread>

namespace bus::uids
{

namespace
{

constexpr int REMEMBERED = 1000;

struct Given
{
    QMutex mutex;
    QSet<QString> set;
    QQueue<QString> order;
};

Given &given()
{
    // Never destroyed: a thread may still send while the process ends.
    static auto *const _given = new Given;
    return *_given;
}

} // namespace

bool take(const QString &uid)
{
    Given &known = given();
    const QMutexLocker lock(&known.mutex);
    if (known.set.contains(uid))
        return false;
    known.set.insert(uid);
    known.order.enqueue(uid);
    if (known.order.size() > REMEMBERED)
        known.set.remove(known.order.dequeue());
    return true;
}

void waitForNext()
{
    QThread::msleep(1);
}

} // namespace bus::uids
