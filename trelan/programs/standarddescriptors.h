#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace programs
{

/// \brief Opens each standard descriptor that is closed. To be called before anything else is
/// opened.
///
/// The first socket would become a closed standard descriptor, and what is printed would go to a
/// peer. What is opened here can be neither read nor written, so that the fault is noticed.
inline void occupyStandardDescriptors()
{
    int descriptor = ::open("/dev/null", O_PATH);
    while (descriptor >= STDIN_FILENO && descriptor <= STDERR_FILENO)
        descriptor = ::open("/dev/null", O_PATH);
    ::close(descriptor);
}

} // namespace programs
