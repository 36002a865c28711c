#pragma once

#include "values/objectrecord.h"

#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace bus
{

/// \brief The last value of every stored object, in memory, within bounds.
///
/// A value that waits for the disk takes its room before it is put, so that an accepted value
/// always fits. Room that it is going to take over from the value of its name is not counted twice.
/// One thread.
class ObjectStore
{
public:
    ObjectStore(int maxObjects, qint64 maxBytes);

    /// Which bound \a record would pass, for people; empty if there is room. A value that replaces
    /// one of its name and is no larger passes no bound.
    QString roomFault(const ObjectRecord &record) const;
    /// Whether there is room for \a record beside the value of its name, whatever becomes of that.
    bool hasAmpleRoom(const ObjectRecord &record) const;

    /// Each reserve() is followed by one release() of that record.
    void reserve(const ObjectRecord &record);
    void release(const ObjectRecord &record);

    /// Keeps \a record in place of the value of its name. Bounds do not count.
    void put(const ObjectRecord &record);
    /// Returns false if there is no such object.
    bool remove(const QString &name);
    /// Changes the value that is kept, if there is one.
    void setDeliveryUid(const QString &name, const QString &uid);

    /// The value of an object; null if there is none. Valid until the next change.
    const ObjectRecord *find(const QString &name) const;

    QVector<ObjectRecord> matching(const QString &wildcard) const;
    int count() const;
    /// Names of the objects that any of \a wildcards matches.
    QStringList namesMatching(const QStringList &wildcards) const;

private:
    qint64 room(const QString &name) const;
    void account(qint64 before, qint64 after);

    const int _maxObjects;
    const qint64 _maxBytes;
    QHash<QString, ObjectRecord> _objects;
    QHash<QString, QVector<qint64>> _reserved; // costs, by name
    int _takenObjects = 0;
    qint64 _takenBytes = 0;
};

} // namespace bus
