#pragma once

#include "net/socketdiag.h"
#include "values/clientowner.h"

namespace bus
{

/// \brief Asks the kernel who has made a connection.
///
/// The kernel is asked through a socket of its own (netlink), which finds one socket among many at
/// once, and else by its list of sockets. One thread.
class OwnerLookup
{
public:
    OwnerLookup();
    ~OwnerLookup();
    Q_DISABLE_COPY(OwnerLookup)

    /// Whether the kernel can be asked at all. If not, no owner of this machine is told.
    bool canAsk() const;

    /// The owner of the other end of \a descriptor, a connection that was accepted a moment ago.
    /// Waits for some milliseconds at most.
    ClientOwner ownerOf(int descriptor);

private:
    ClientOwner find(const socketdiag::Ends &ends);
    socketdiag::Answer ask(const socketdiag::Ends &ends);

    const int _descriptor;
    const bool _canAsk;
    quint32 _sequence = 0;
    bool _isProven = false; // whether the kernel has ever found a socket so
    const bool _mapsAllUsers;
};

} // namespace bus
