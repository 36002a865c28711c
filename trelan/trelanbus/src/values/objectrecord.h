#pragma once

#include <trelanobject.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace bus
{

/// Everything of an object but its content, as it travels.
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
/// As text a content takes a tenth of what its tree of variants takes, its size in memory is known
/// exactly, and it is what goes to the disk and, in the Light coding, on to whoever gets it.
struct ObjectRecord
{
    ObjectHead head;
    QByteArray contentJson; ///< a JSON object without blanks
    QString deliveryUid;    ///< in place of its uid for those who may know that of another value

    TrelanObject toObject() const;
    /// The data of an answer that loads it.
    QByteArray toJson() const;

    /// What keeping it takes, in bytes.
    qint64 cost() const;
};

} // namespace bus
