#pragma once

#include "relayframes.h"

#include <map>
#include <set>

namespace relay
{

/// The server: acknowledges every frame and passes it on, and knows nothing of its bytes.
class Relay
{
public:
    bool listen();
    quint16 port() const { return _listener.port(); }

    /// Waits for something to do, and does it.
    void step();

private:
    void accept();
    void close(int descriptor);
    bool read(int descriptor);
    void take(int sender, const char *frame, size_t size);

    LoopbackSocket _listener;
    Watch _watch;
    std::map<int, FrameReader> _clients;
    std::set<int> _subscribers;
};

} // namespace relay
