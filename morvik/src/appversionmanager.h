#pragma once

#include "appversion.h"
#include "morvikglobal.h"

#include <QtCore/QString>

namespace morvik
{

/// \brief The versions and translations of what is loaded into this process, by name.
///
/// Libraries call it while they are loaded, before main() and before there is an application
/// object. All functions are static and thread-safe, and none prints anything.
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
    /// resource folder ":/translations". The translation is installed for the application object
    /// that is there, and for every later one. Called outside the application's thread, the
    /// function leaves the installing to the event loop of that thread. A second call with one name
    /// does nothing.
    ///
    /// A locale without translation, or one that prefers English, is no fault: the texts stay as
    /// they are in the code.
    static void addLocalisation(const QString &name);
};

} // namespace morvik
