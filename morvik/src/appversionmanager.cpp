#include "appversionmanager.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QHash>
#include <QtCore/QLocale>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QStringList>
#include <QtCore/QThread>
#include <QtCore/QTranslator>

#include <cstdlib>
#include <memory>
#include <utility>

#include <dlfcn.h>

namespace morvik
{

namespace
{

const QString RESOURCE_FOLDER = QStringLiteral(":/translations");
const QString TRANSLATOR_NAME = QStringLiteral("morvik.translator.%1");

/// The path of this library, links resolved, in the bytes of the file system. It is made absolute
/// at once: a relative one means nothing any more when the process has changed its folder.
QByteArray libraryPath()
{
    Dl_info info;
    static const char _inThisLibrary = 0;
    if (dladdr(&_inThisLibrary, &info) == 0)
        return {};
    const std::unique_ptr<char, decltype(&std::free)> path(realpath(info.dli_fname, nullptr),
                                                           &std::free);
    return path.get();
}

struct Registry
{
    QMutex mutex; // guards versions and localisations
    QHash<QString, AppVersion> versions;
    QStringList localisations;
    /// Kept as bytes: decoded before there is an application object, Qt would take the C locale for
    /// the encoding of file names, and keep to it.
    const QByteArray path = libraryPath();
};

/// Built on first use: libraries register while they are loaded, in an order nobody controls.
Registry &registry()
{
    static Registry _registry;
    return _registry;
}

/// Never a relative folder: a translation must not come from wherever the process was started.
QString installedFolder()
{
    if (registry().path.isEmpty())
        return RESOURCE_FOLDER;
    const QFileInfo library(QFile::decodeName(registry().path));
    return library.path() + QStringLiteral("/" MORVIK_LIB_TO_TRANSLATIONS);
}

/// The texts in the code are English. A user who prefers English, with German as a second choice,
/// must not get German only because there is no English file.
bool prefersTextsOfTheCode(const QLocale &locale)
{
    const QLocale first(locale.uiLanguages().value(0));
    return first.language() == QLocale::C || first.language() == QLocale::English;
}

/// Installs the translation of \a name; called in the thread of the application object.
void installTranslator(const QString &name)
{
    QCoreApplication *application = QCoreApplication::instance();
    const QString objectName = TRANSLATOR_NAME.arg(name);
    const QLocale locale;
    if (prefersTextsOfTheCode(locale) ||
        application->findChild<QObject *>(objectName, Qt::FindDirectChildrenOnly))
        return;

    auto translator = std::make_unique<QTranslator>();
    const QString separator(QLatin1Char('_'));
    if (!translator->load(locale, name, separator, installedFolder()) &&
        !translator->load(locale, name, separator, RESOURCE_FOLDER))
        return;
    translator->setObjectName(objectName);
    translator->setParent(application);
    QCoreApplication::installTranslator(translator.release());
}

/// Called by Qt in the constructor of every application object. If there is one when this library
/// is loaded, Qt calls it then, before any library has given a name.
void installTranslators()
{
    Registry &known = registry();
    QStringList names;
    {
        const QMutexLocker locker(&known.mutex);
        names = known.localisations;
    }
    for (const QString &name : std::as_const(names))
        installTranslator(name);
}

Q_COREAPP_STARTUP_FUNCTION(installTranslators)

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
    {
        Registry &known = registry();
        const QMutexLocker locker(&known.mutex);
        if (known.localisations.contains(name))
            return;
        known.localisations.append(name);
    }
    // The name is in the list by now. An application object that is made after this line installs
    // the translation; one that is made just before may ask twice, and installTranslator() looks.
    QCoreApplication *application = QCoreApplication::instance();
    if (!application)
        return;
    if (application->thread() == QThread::currentThread())
        installTranslator(name);
    else
        QMetaObject::invokeMethod(
            application, [name] { installTranslator(name); }, Qt::QueuedConnection);
}

} // namespace morvik
