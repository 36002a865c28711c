#pragma once

#include "values/objectrecord.h"

#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <deque>
#include <functional>

namespace bus
{

/// \brief Sees to it that what is published is delivered in the order in which it came, although
/// what goes to the disk takes longer than what came after it.
///
/// Each publish takes a place when it comes. Once it has taken effect it is delivered, or waits for
/// those before it. One thread.
class PublishOrder
{
public:
    struct Publish
    {
        ObjectRecord record;
        QStringList receivers;       ///< who had subscribed when it took effect
        std::function<void()> reply; ///< if that has to wait as well
        bool waited = false;         ///< others came to their turn meanwhile
    };
    using Deliver = std::function<void(const Publish &)>;

    explicit PublishOrder(Deliver deliver);

    quint64 takePlace();
    /// Nothing is to be delivered.
    void leave(quint64 place);
    /// Delivers it, and what waited for it, as soon as nothing is before it.
    void takeEffect(quint64 place, const Publish &publish);

    /// So much waits that whoever sends more has to wait, too.
    bool isFull() const;

    /// This client has just been told the newest values of these objects, and is to hear of no
    /// older one after that.
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
    quint64 _first = 1; // of the places
    qint64 _waitingBytes = 0;
};

} // namespace bus
