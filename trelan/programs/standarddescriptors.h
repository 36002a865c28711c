#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace programs
{

/// A standard descriptor that is closed would become the first socket, and what is printed would go
/// to a peer. What takes its place can be neither read nor written, so that the fault is noticed.
/// To be called before anything is opened.
inline void occupyStandardDescriptors()
{
    int descriptor = ::open("/dev/null", O_PATH);
    while (descriptor >= STDIN_FILENO && descriptor <= STDERR_FILENO)
        descriptor = ::open("/dev/null", O_PATH);
    ::close(descriptor);
}

} // namespace programs
