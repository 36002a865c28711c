#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace bus
{
class TrelanObject;
}

/// Unique ids for what this process sends. Internal to the library; thread-safe.
namespace bus::uids
{

/// What \a object.genUid() returns, given its content as json::compact() writes it.
QString of(const TrelanObject &object, const QByteArray &contentJson);

/// Remembers \a uid. False if it is one of the last thousand remembered.
bool remember(const QString &uid);
/// Waits for the next millisecond, in which ids come out differently.
void waitForNext();

/// An id that \a make returns and that differs from the last thousand ids. An id is made of a value
/// and the millisecond, so that two equal values in one millisecond would share theirs, and
/// receivers drop a message whose id they have seen.
template <typename Make>
QString uniqueOf(const Make &make)
{
    for (;;) {
        QString uid = make();
        if (remember(uid))
            return uid;
        waitForNext();
    }
}

/// An id by chance alone, of the usual length: nobody has to wait for it, however many equal values
/// are sent in one millisecond.
QString random();

/// An id for \a value, by its genUid().
template <typename Value>
QString unique(const Value &value)
{
    return uniqueOf([&value] { return value.genUid(); });
}

} // namespace bus::uids
