#pragma once

#include "appversion.h"
#include "morvikglobal.h"

#include <QtCore/QString>

namespace morvik
{

/// \brief What is loaded into this process, by name, and the translations that go with it.
///
/// Libraries call it while they are loaded, before main() and before there is an application
/// object; all functions are static and thread-safe, and none prints anything.
class MORVIK_EXPORT AppVersionManager
{
public:
    /// Registers \a version under \a name, in place of one registered before, and returns what is
    /// now registered.
    static AppVersion addVersion(const QString &name, const AppVersion &version);

    /// What is registered under \a name; an invalid version if nothing is.
    static AppVersion version(const QString &name);

    /// \brief Loads the translations of \a name for the locale of the process.
    ///
    /// The file `<name>_<locale>.qm` is looked for in the folder of installed translations,
    /// `<datadir>/morvik/translations` of the tree this library lies in, and then in the Qt
    /// resource folder ":/translations". It is installed as soon as there is an application
    /// object, at once if there is one, and for every later one again; in another thread than the
    /// application's it is left to that thread's event loop. A name counts once.
    ///
    /// A locale without translation is no fault, and neither is one that prefers English: the texts
    /// stay as they are in the code.
    static void addLocalisation(const QString &name);
};

} // namespace morvik
