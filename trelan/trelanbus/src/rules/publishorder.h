#pragma once

#include "values/objectrecord.h"

#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <deque>
#include <functional>

namespace bus
{

/// \brief Has publishes delivered in the order in which they came, although a publish that goes to
/// the disk takes longer than its successors.
///
/// Each publish takes a place when it comes. Once it has taken effect it is delivered, or waits for
/// the publishes before it. One thread.
class PublishOrder
{
public:
    struct Publish
    {
        ObjectRecord record;
        QStringList receivers;       ///< the subscribers when it took effect
        std::function<void()> reply; ///< the reply, if it waits with the publish
        bool waited = false;         ///< for other publishes
    };
    using Deliver = std::function<void(const Publish &)>;

    explicit PublishOrder(Deliver deliver);

    quint64 takePlace();
    /// Gives the place up: nothing is to be delivered.
    void leave(quint64 place);
    /// Delivers a publish as soon as none is before it, and then those that waited for it.
    void takeEffect(quint64 place, const Publish &publish);

    /// Whether so much waits that replies have to wait, too.
    bool isFull() const;

    /// Leaves a client out that has just been told the newest values of these objects, so that it
    /// hears of no older value afterwards.
    void skip(const QString &client, const QSet<QString> &objects);

private:
    enum State { Expected, Effective, Left };
    struct Place
    {
        State state = Expected;
        Publish publish;
        qint64 cost = 0; // of keeping it, in bytes
    };

    Place &at(quint64 place);
    void proceed();

    const Deliver _deliver;
    std::deque<Place> _places;
    quint64 _first = 1; // number of the first place
    qint64 _waitingBytes = 0;
};

} // namespace bus
