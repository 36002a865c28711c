#pragma once

#include <trelanobject.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace bus
{

/// Everything that travels of an object, except for its content.
struct ObjectHead
{
    QString name;
    QString publisher;
    QString uid;
    qint64 time = 0; ///< milliseconds since the epoch
    TrelanObject::Options options;

    bool isLogged() const { return options.testFlag(TrelanObject::Logged); }
    bool isStored() const { return options.testFlag(TrelanObject::Stored); }
    bool isPermanent() const { return isStored() && options.testFlag(TrelanObject::Permanent); }
};

/// \brief An object as the bus keeps it: its content as compact JSON.
///
/// Text takes a tenth of the memory of a tree of variants, its size is known exactly, and it is
/// what goes to the disk and, in the coding Light, to clients.
struct ObjectRecord
{
    ObjectHead head;
    QByteArray contentJson; ///< a JSON object without blanks
    QString deliveryUid;    ///< replaces a uid that receivers may know from another value

    TrelanObject toObject() const;
    /// The data of an answer with this object.
    QByteArray toJson() const;

    /// How many bytes the kept object takes, roughly.
    qint64 cost() const;
};

} // namespace bus
