#pragma once

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <functional>
#include <map>
#include <memory>

namespace bus
{

/// Milliseconds on a clock that never goes back, common to all threads.
qint64 steadyNow();

/// \brief Ends operations whose time is over. Internal to the library; one thread.
class Deadlines : public QObject
{
    Q_OBJECT

public:
    using Place = std::multimap<qint64, std::function<void()>>::iterator;

    explicit Deadlines(QObject *parent = nullptr);

    /// Calls \a expire when steadyNow() has come to \a deadline, unless it is removed before.
    Place add(qint64 deadline, const std::function<void()> &expire);
    void remove(Place place) { _entries.erase(place); }

private:
    void expire();

    std::multimap<qint64, std::function<void()>> _entries;
    QTimer _timer; // runs until a deadline of an entry, or of one that was removed
    qint64 _timerAt = 0;
};

} // namespace bus
