#pragma once

#include <trelanmessage.h>
#include <trelanobject.h>

#include <QtCore/QByteArray>

namespace bus
{

/// \brief An object as the bus keeps it: its content as compact JSON.
///
/// As text a content takes a tenth of what its tree of variants takes, its size in memory is known
/// exactly, and it is what goes to the disk.
struct ObjectRecord
{
    TrelanObject head;      ///< everything but the content
    QByteArray contentJson; ///< a JSON object
    QString deliveryUid;    ///< in place of its uid for those who may know that of another value

    static ObjectRecord fromObject(const TrelanObject &object);
    TrelanObject toObject() const;
    /// The notification of it, for any receiver.
    TrelanMessage toNotification() const;

    /// What keeping it takes, in bytes.
    qint64 cost() const;
};

} // namespace bus
