#include "endsignals.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace trelanctl
{

namespace
{

int _pipe[2] = {-1, -1};

void onSignal(int)
{
    const int before = errno;
    const ssize_t written = ::write(_pipe[1], "", 1);
    static_cast<void>(written); // the pipe has room for both signals
    errno = before;
}

} // namespace

void EndSignals::install()
{
    if (_pipe[0] >= 0 || ::pipe2(_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = int(SA_RESETHAND); // the second signal ends a tool that takes its time
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

int EndSignals::descriptor()
{
    return _pipe[0];
}

bool EndSignals::arrived()
{
    pollfd poll {_pipe[0], POLLIN, 0};
    return ::poll(&poll, 1, 0) > 0;
}

} // namespace trelanctl
