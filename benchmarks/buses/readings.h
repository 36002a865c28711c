#pragma once

#include <trelanobject.h>

/// What the clients of this bus publish and subscribe to.
namespace readings
{

constexpr int NAMES = 1000;
const QString WILDCARD = QStringLiteral("bench.*");

inline QString receiver(int number)
{
    return QStringLiteral("receiver%1").arg(number);
}

/// An object of one publisher, the next each time.
///
/// Under many names, since a channel gives every object an id of its own: of equal objects that can
/// be only one in a millisecond. Not stored, as the other buses keep nothing either.
inline bus::TrelanObject next(const QVariantMap &content)
{
    static int _number = 0;
    bus::TrelanObject object;
    object.setName(QStringLiteral("bench.") + QString::number(++_number % NAMES));
    object.setContent(content);
    object.setStored(false);
    return object;
}

} // namespace readings
