#include "client/clientlog.h"

namespace bus
{

Q_LOGGING_CATEGORY(CLIENT_LOG, "trelan.client")

} // namespace bus
