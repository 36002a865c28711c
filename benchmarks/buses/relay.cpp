#include "relay.h"

namespace relay
{

bool Relay::listen()
{
    if (!_listener.listen())
        return false;
    _watch.add(_listener.descriptor());
    return true;
}

void Relay::step()
{
    _watch.wait([this](int descriptor) {
        if (descriptor == _listener.descriptor())
            accept();
        else if (!read(descriptor))
            close(descriptor);
    });
}

void Relay::accept()
{
    LoopbackSocket socket = _listener.accept();
    const int descriptor = socket.descriptor();
    _watch.add(descriptor);
    _clients.emplace(descriptor, FrameReader(std::move(socket)));
}

void Relay::close(int descriptor)
{
    _subscribers.erase(descriptor);
    _clients.erase(descriptor);
}

bool Relay::read(int descriptor)
{
    return _clients.at(descriptor).read([this, descriptor](const char *frame, size_t size) {
        take(descriptor, frame, size);
    });
}

void Relay::take(int sender, const char *frame, size_t size)
{
    const Length done = 0;
    _clients.at(sender).socket.write(reinterpret_cast<const char *>(&done), sizeof(done));
    if (size == sizeof(Length)) {
        _subscribers.insert(sender);
        return;
    }
    for (const int subscriber : _subscribers)
        _clients.at(subscriber).socket.write(frame, size);
}

} // namespace relay
