#pragma once

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace bus
{

/// \brief Who has made a connection, as the kernel says.
///
/// An owner that the kernel does not tell is unknown. Nothing says that two unknown owners are one,
/// so that they count as two. Where the kernel tells nothing of anybody, all count as one: names
/// are then kept from nobody.
struct ClientOwner
{
    enum Kind {
        Unknown,
        User,   ///< a user of this machine
        Remote, ///< another machine, known by its address
        Untold  ///< a user of this machine, whose kernel cannot be asked
    };

    Kind kind = Unknown;
    quint32 userId = 0;       ///< of a user
    quint64 socket = 0;       ///< of a user: the inode of the client's end
    quint64 controlGroup = 0; ///< of a user: the kernel's number of the group; 0 if it tells none
    QString address;          ///< of another machine
    QString name;             ///< of a user: its name, or its number as text; see UserDatabase
    QStringList groups;       ///< of a user, with the primary one; see UserDatabase

    bool isRoot() const;
    bool isSameAs(const ClientOwner &other) const;
    /// Whether this owner may have a name while a connection of \a other has it.
    bool mayTakeFrom(const ClientOwner &other) const;

    /// "user", "remote", "unknown" or "untold".
    QString kindName() const;
    /// "user alice", "an unknown user", or an address; for people.
    QString text() const;
};

} // namespace bus
