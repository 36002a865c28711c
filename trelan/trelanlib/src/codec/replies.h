#pragma once

#include "trelanerror.h"
#include "trelanobject.h"

#include <QtCore/QMap>
#include <QtCore/QVariantMap>

/// What replies say on both channels. Internal to the library; thread-safe.
namespace bus::replies
{

/// \brief The error under "result", or none.
///
/// Of the code the low 16 bits count. A missing code is none, and so a success. A code that is no
/// number is \c IncorrectRequestData, with a description that says so.
TrelanError error(const QVariantMap &result);

/// The objects, by name, of a reply to the operation that loads by a wildcard.
QMap<QString, TrelanObject> objects(const QVariantMap &data);

} // namespace bus::replies
