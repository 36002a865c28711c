#pragma once

#include "trelanglobal.h"

#include <appversion.h>

namespace bus
{

/// \brief Makes the library known when it is loaded. Nothing has to be called.
///
/// Its one instance registers the library's version and the names of the value types, so that they
/// travel through queued connections and can be written in SIGNAL() and SLOT(), each under its
/// short and its full name: "TrelanMessage", "TrelanObject", "TrelanCommand" and QSharedPointer
/// of each. It also asks for the translations of the library's texts.
///
/// A program that uses no symbol of the library may be linked without it, and then finds nothing
/// registered.
class TRELAN_EXPORT TrelanLib
{
public:
    TrelanLib();
    ~TrelanLib();

private:
    static morvik::AppVersion _version;
};

} // namespace bus
