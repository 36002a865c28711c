#pragma once

#include <trelanobject.h>

#include <QtCore/QList>
#include <QtCore/QString>

namespace hoststate
{

/// \brief Reads the state of this machine from the kernel's files, as objects to publish.
///
/// The objects are host.<name>.load, .memory, .net.<interface> and .disk.<mount>. An object whose
/// figures cannot be read is left out.
class HostSampler
{
public:
    explicit HostSampler(const QString &hostName);

    QList<bus::TrelanObject> sample() const;

private:
    void append(QList<bus::TrelanObject> &objects, const QString &name,
                const QVariantMap &figures) const;

    const QString _prefix;
};

} // namespace hoststate
