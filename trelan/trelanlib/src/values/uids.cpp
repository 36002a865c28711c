#include "values/uids.h"

#include "trelanobject.h"
#include "values/wirevalue.h"

#include <QtCore/QMutex>
#include <QtCore/QQueue>
#include <QtCore/QRandomGenerator>
#include <QtCore/QSet>
#include <QtCore/QThread>

#include <array>

namespace bus::uids
{

namespace
{

constexpr int REMEMBERED = 1000;

class Memory
{
public:
    bool add(const QString &uid)
    {
        const QMutexLocker lock(&_mutex);
        if (_uids.contains(uid))
            return false;
        _uids.insert(uid);
        _order.enqueue(uid);
        if (_order.size() > REMEMBERED)
            _uids.remove(_order.dequeue());
        return true;
    }

private:
    QMutex _mutex; // guards the members below
    QSet<QString> _uids;
    QQueue<QString> _order;
};

} // namespace

QString of(const TrelanObject &object, const QByteArray &contentJson)
{
    const QString text = QStringLiteral("TrelanObject") + object.publisher() + object.name() +
                         object.timestamp().toIsoText() + QString::number(int(object.options())) +
                         value::nowText();
    return value::digest(text.toUtf8(), contentJson);
}

QString random()
{
    constexpr int BYTES = 20; // as many as a digest has
    std::array<quint32, BYTES / sizeof(quint32)> bits {};
    QRandomGenerator::global()->fillRange(bits.data(), bits.size());
    return QString::fromLatin1(
        QByteArray::fromRawData(reinterpret_cast<const char *>(bits.data()), BYTES).toBase64());
}

bool remember(const QString &uid)
{
    // Never destroyed: a thread may still send while the process ends.
    static auto *const _memory = new Memory;
    return _memory->add(uid);
}

void waitForNext()
{
    QThread::msleep(1);
}

} // namespace bus::uids
