#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace bus
{
class TrelanObject;
}

/// Ids of what this process sends. Internal to the library; thread-safe.
namespace bus::uids
{

/// What \a object.genUid() returns, of a content that json::compact() has written already.
QString of(const TrelanObject &object, const QByteArray &contentJson);

/// Remembers \a uid. False if it is one of the last thousand remembered.
bool remember(const QString &uid);
void waitForNext();

/// An id that \a make returns and that equals none of the last thousand given here: ids are made
/// of a value and the millisecond, and receivers drop what repeats one. Waits for the next
/// millisecond if it has to.
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

/// An id for \a value, by its genUid().
template <typename Value>
QString unique(const Value &value)
{
    return uniqueOf([&value] { return value.genUid(); });
}

} // namespace bus::uids
