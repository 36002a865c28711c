#include "objectstore.h"

namespace bus
{

ObjectStore::ObjectStore(int maxObjects, qint64 maxBytes)
    : _maxObjects(maxObjects)
    , _maxBytes(maxBytes)
{}

QString ObjectStore::roomFault(const ObjectRecord &record) const
{
    const ObjectRecord *old = find(record.head.name());
    const qint64 growth = record.cost() - (old ? old->cost() : 0);
    if (old && growth <= 0)
        return {};
    if (!old && _objects.size() + _reservedObjects + 1 > _maxObjects)
        return QStringLiteral("the bus keeps %1 objects at most").arg(_maxObjects);
    if (_bytes + _reservedBytes + growth > _maxBytes)
        return QStringLiteral("the bus keeps objects of %1 bytes at most").arg(_maxBytes);
    return {};
}

void ObjectStore::reserve(const ObjectRecord &record)
{
    ++_reservedObjects;
    _reservedBytes += record.cost();
}

void ObjectStore::release(const ObjectRecord &record)
{
    --_reservedObjects;
    _reservedBytes -= record.cost();
}

void ObjectStore::put(const ObjectRecord &record)
{
    remove(record.head.name());
    _bytes += record.cost();
    _objects.insert(record.head.name(), record);
}

void ObjectStore::remove(const QString &name)
{
    const auto found = _objects.constFind(name);
    if (found == _objects.constEnd())
        return;
    _bytes -= found->cost();
    _objects.erase(found);
}

const ObjectRecord *ObjectStore::find(const QString &name) const
{
    const auto found = _objects.constFind(name);
    return found == _objects.constEnd() ? nullptr : &*found;
}

QVector<ObjectRecord> ObjectStore::matching(const QString &wildcard) const
{
    QVector<ObjectRecord> records;
    for (const ObjectRecord &record : _objects) {
        if (TrelanObject::testWildCard(record.head.name(), wildcard))
            records.append(record);
    }
    return records;
}

int ObjectStore::count() const
{
    return _objects.size();
}

qint64 ObjectStore::bytes() const
{
    return _bytes;
}

} // namespace bus
