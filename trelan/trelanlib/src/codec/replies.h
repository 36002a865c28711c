#pragma once

#include "trelanerror.h"

#include <QtCore/QVariantMap>

/// What replies say on both channels. Internal to the library; thread-safe.
namespace bus::replies
{

/// \brief The error under "result", or none.
///
/// Of the code the low 16 bits count. A missing code is none, and so a success. A code that is no
/// number is \c IncorrectRequestData, with a description that says so.
TrelanError error(const QVariantMap &result);

} // namespace bus::replies
