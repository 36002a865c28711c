#pragma once

#include <QtCore/QString>

/// Ids of what this process sends. Internal to the library; thread-safe.
namespace bus::uids
{

/// Gives an id, and remembers it. False if it is one of the last thousand given.
bool take(const QString &uid);
void waitForNext();

/// An id for \a value that equals none of the last thousand given here: ids are made of the value
/// and the millisecond, and receivers drop what repeats one. Waits for the next millisecond if it
/// has to.
template <typename Value>
QString unique(const Value &value)
{
    for (;;) {
        QString uid = value.genUid();
        if (take(uid))
            return uid;
        waitForNext();
    }
}

} // namespace bus::uids
