#include "rules/pendingwrites.h"

#include <utility>
#include <vector>

namespace bus
{

bool PendingWrites::isEmpty(ConnectionId id) const
{
    return _connections.isEmpty() || !_connections.contains(id);
}

bool PendingWrites::hasChanges(ConnectionId id) const
{
    const auto connection = _connections.constFind(id);
    return connection != _connections.constEnd() && connection->changes > 0;
}

bool PendingWrites::hasRoom(ConnectionId id, qint64 cost) const
{
    const auto connection = _connections.constFind(id);
    if (connection == _connections.constEnd())
        return true;
    const int shares = _connections.size();
    return _requests < MAX_REQUESTS && _bytes + cost <= MAX_BYTES &&
           int(connection->answers.size()) < MAX_REQUESTS / shares &&
           connection->bytes + cost <= MAX_BYTES / shares;
}

PendingWrites::Write PendingWrites::begin(ConnectionId id, Kind kind, qint64 cost)
{
    Connection &connection = _connections[id];
    const quint64 number = connection.first + connection.answers.size();
    connection.answers.emplace_back();
    connection.changes += int(kind == Change);
    connection.bytes += cost;
    ++_requests;
    _bytes += cost;
    return {id, number, cost, kind};
}

void PendingWrites::end(const Write &write, const Answer &answer)
{
    --_requests;
    _bytes -= write.cost;
    const auto connection = _connections.find(write.connection);
    if (connection == _connections.end())
        return;
    connection->changes -= int(write.kind == Change);
    connection->bytes -= write.cost;
    std::deque<Answer> &answers = connection->answers;
    answers[size_t(write.number - connection->first)] = answer;
    std::vector<Answer> due;
    while (!answers.empty() && answers.front()) {
        due.push_back(std::move(answers.front()));
        answers.pop_front();
        ++connection->first;
    }
    if (answers.empty())
        _connections.erase(connection);
    // An answer may find its connection at its end, which changes the connections.
    for (const Answer &next : due)
        next();
}

void PendingWrites::forget(ConnectionId id)
{
    _connections.remove(id);
}

} // namespace bus
