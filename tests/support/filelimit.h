#pragma once

#include <csignal>
#include <sys/resource.h>

/// Lets no file of this process grow beyond \a size. Tests print to a pipe, which is none.
inline void limitFiles(rlim_t size)
{
    rlimit limit {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size < limit.rlim_max ? size : limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, SIG_IGN);
}
