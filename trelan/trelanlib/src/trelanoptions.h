#pragma once

#include "trelanglobal.h"

namespace bus
{

/// \brief How one operation of a TrelanClient is treated. A plain value.
///
/// \code
/// client.call("printer", "print", { { "file", path } },
///             bus::TrelanOptions().within(5000).orWaitForBus());
/// \endcode
class TRELAN_EXPORT TrelanOptions
{
public:
    TrelanOptions() = default;

    /// The operation ends as TimedOut after so many milliseconds, 1 or more; 30 s unless set. It
    /// may be done all the same: a stored object that waits for the bus is sent once the bus is
    /// back.
    TrelanOptions within(int milliseconds) const;
    /// While the bus is away the operation waits for it, instead of ending as NotConnected.
    TrelanOptions orWaitForBus() const;
    /// An operation whose connection is lost before the bus has answered is sent again on the next
    /// one. It may be done twice, since nobody knows whether it was done.
    TrelanOptions orRepeat() const;

    int milliseconds() const;
    bool waitsForBus() const;
    bool mayRepeat() const;

private:
    int _milliseconds = 30000;
    bool _waitsForBus = false;
    bool _mayRepeat = false;
};

} // namespace bus
