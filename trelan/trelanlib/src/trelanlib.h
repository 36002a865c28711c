#pragma once

#include "trelanglobal.h"

#include <appversion.h>

namespace bus
{

/// \brief Makes the library known when it is loaded. Nothing has to be called.
///
/// Its one instance registers the library's version and the value types, so that they travel
/// through queued connections and can be written in SIGNAL() and SLOT(). "TrelanMessage",
/// "TrelanObject", "TrelanCommand", QSharedPointer of each, and "TrelanConnectionState" are
/// registered, with and without the namespace. The instance also asks for the translations of the
/// library's texts.
///
/// The linker may leave the library out of a program that uses no symbol of it; nothing is
/// registered then.
class TRELAN_EXPORT TrelanLib
{
public:
    TrelanLib();
    ~TrelanLib();

private:
    static morvik::AppVersion _version;
};

} // namespace bus
