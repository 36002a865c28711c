#include "values/clientowner.h"

#include "values/busnames.h"

namespace bus
{

bool ClientOwner::isRoot() const
{
    return kind == User && userId == 0;
}

bool ClientOwner::isSameAs(const ClientOwner &other) const
{
    return kind != Unknown && kind == other.kind && userId == other.userId &&
           address == other.address;
}

bool ClientOwner::mayTakeFrom(const ClientOwner &other) const
{
    return isRoot() || isSameAs(other);
}

QString ClientOwner::kindName() const
{
    switch (kind) {
    case User:
        return QStringLiteral("user");
    case Remote:
        return QStringLiteral("remote");
    case Untold:
        return QStringLiteral("untold");
    case Unknown:
        break;
    }
    return QStringLiteral("unknown");
}

QString ClientOwner::text() const
{
    switch (kind) {
    case User:
        return QStringLiteral("user ") +
               (name.isEmpty() ? QString::number(userId) : names::printable(name));
    case Remote:
        return address;
    case Untold:
        return QStringLiteral("a user that the kernel does not tell");
    case Unknown:
        break;
    }
    return QStringLiteral("an unknown user");
}

} // namespace bus
