#pragma once

#include "values/clientowner.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>

namespace bus
{

/// \brief Names of users and their groups, as the system's databases have them.
///
/// What was read is kept for a minute, since a database may be on another machine and slow. One
/// thread.
class UserDatabase
{
public:
    /// Fills in name and groups of an owner who is a user.
    void complete(ClientOwner &owner);

private:
    struct Entry
    {
        QString name;
        QStringList groups;
        QElapsedTimer since;
    };

    QHash<quint32, Entry> _entries;
};

} // namespace bus
