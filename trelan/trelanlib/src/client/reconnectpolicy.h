#pragma once

#include <QtCore/QtGlobal>

#include <functional>

namespace bus
{

/// \brief How long a client waits before it tries to connect again. Internal to the library; pure.
///
/// The first attempt is immediate; then the pauses double, from 50 ms on, and chance varies them,
/// so that a thousand clients do not come back at once. Only a connection that has lasted begins
/// anew. Two programs of one name take the connection from each other: one whose connection was
/// taken soon after it was accepted waits for 5 s, longer each time.
class ReconnectPolicy
{
public:
    static constexpr qint64 LASTING_MS = 10000;

    explicit ReconnectPolicy(int maxPause)
        : _maxPause(maxPause)
    {}

    void accepted(qint64 now) { _acceptedAt = now; }

    /// The connection is gone. True if it was accepted only just before.
    bool lost(qint64 now)
    {
        const bool isSoon = _acceptedAt >= 0 && now - _acceptedAt < LASTING_MS;
        if (_acceptedAt >= 0 && !isSoon) {
            _attempts = 0;
            _taken = 0;
        }
        _acceptedAt = -1;
        return isSoon;
    }

    /// \a chance gives a number from the first argument up to, and without, the second.
    int nextPause(const std::function<int(int, int)> &chance)
    {
        const int attempt = _attempts++;
        if (attempt == 0)
            return 0;
        const int most = qMin(_maxPause, FIRST_PAUSE_MS << qMin(attempt - 1, MAX_DOUBLINGS));
        return chance(most / 2, most + 1);
    }

    /// The pause after the name was taken: no chance makes it shorter.
    int nextPauseOfTaken(const std::function<int(int, int)> &chance)
    {
        const int least = FIRST_TAKEN_PAUSE_MS << qMin(_taken++, MAX_TAKEN_DOUBLINGS);
        return chance(least, least + least / 2);
    }

private:
    static constexpr int FIRST_PAUSE_MS = 50;
    static constexpr int MAX_DOUBLINGS = 12;
    static constexpr int FIRST_TAKEN_PAUSE_MS = 5000;
    static constexpr int MAX_TAKEN_DOUBLINGS = 4; // 80 s, and half as much by chance

    const int _maxPause;
    qint64 _acceptedAt = -1;
    int _attempts = 0;
    int _taken = 0;
};

} // namespace bus
