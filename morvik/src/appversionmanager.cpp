#include "appversionmanager.h"

#include <QtCore/QHash>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>

namespace morvik
{

namespace
{

struct Registry
{
    QMutex mutex;
    QHash<QString, AppVersion> versions;
};

/// Built on first use: libraries register while they are loaded, in an order nobody controls.
Registry &registry()
{
    static Registry _registry;
    return _registry;
}

} // namespace

AppVersion AppVersionManager::addVersion(const QString &name, const AppVersion &version)
{
    Registry &known = registry();
    const QMutexLocker locker(&known.mutex);
    return *known.versions.insert(name, version);
}

AppVersion AppVersionManager::version(const QString &name)
{
    Registry &known = registry();
    const QMutexLocker locker(&known.mutex);
    return known.versions.value(name);
}

void AppVersionManager::addLocalisation(const QString &name)
{
    Q_UNUSED(name)
}

} // namespace morvik
