#pragma once

#include <QtCore/QHash>
#include <QtCore/QQueue>
#include <QtCore/QString>

namespace bus
{

/// \brief Which deliveries of the bus were seen. Internal to the library; pure, one thread.
///
/// A message is remembered beyond a connection, since the bus delivers again what was acknowledged
/// just before the connection was lost. A notification is not: no bus delivers it on another
/// connection, and a publisher that comes back may publish a value once more under its uid.
class SeenMessages
{
public:
    /// Two windows of the bus: what was on its way twice can be seen twice.
    static constexpr int MAX_SEEN = 128;

    /// False if the delivery called \a key was seen before.
    bool add(const QString &key, bool isNotification)
    {
        const auto known = _connections.constFind(key);
        if (known != _connections.constEnd() && (*known == ANY || *known == _connection))
            return false;
        if (known == _connections.constEnd())
            _keys.enqueue(key);
        _connections.insert(key, isNotification ? _connection : ANY);
        if (_keys.size() > MAX_SEEN)
            _connections.remove(_keys.dequeue());
        return true;
    }
    void beginConnection() { ++_connection; }

private:
    static constexpr quint64 ANY = 0;

    QHash<QString, quint64> _connections; // in which a key counts
    QQueue<QString> _keys;                // the oldest first
    quint64 _connection = 1;
};

} // namespace bus
