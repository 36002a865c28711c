#pragma once

#include <memory>

namespace bus
{

/// \brief Numbers the connections that one channel makes with one socket. Internal to the library.
///
/// Whatever emits a signal may run a slot that closes the channel, opens it again or deletes it.
/// Who goes on after that asks its Mark first: bytes, timers and results of an ended connection
/// mean nothing on the next one.
class ConnectionCount
{
public:
    /// One connection, and whether it has ended.
    class Mark
    {
    public:
        explicit Mark(const std::shared_ptr<const int> &current)
            : _current(current)
            , _number(*current)
        {}

        /// True once the channel was closed, opened again or deleted.
        bool isOver() const { return *_current != _number; }

    private:
        std::shared_ptr<const int> _current;
        int _number;
    };

    ConnectionCount() = default;
    ConnectionCount(const ConnectionCount &) = delete;
    ConnectionCount &operator=(const ConnectionCount &) = delete;
    ~ConnectionCount() { next(); }

    /// The connection so far has ended, and another one may begin.
    void next() { ++*_current; }
    Mark mark() const { return Mark(_current); }

private:
    std::shared_ptr<int> _current = std::make_shared<int>(0);
};

} // namespace bus
