#pragma once

#include <QtCore/QLoggingCategory>

namespace bus
{

/// "trelan.client": connections found and lost, one line each. Internal to the library.
Q_DECLARE_LOGGING_CATEGORY(CLIENT_LOG)

} // namespace bus
