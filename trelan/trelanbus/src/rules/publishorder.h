#pragma once

#include "values/objectrecord.h"

#include <QtCore/QHash>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <deque>
#include <functional>
#include <memory>

namespace bus
{

/// \brief Has publishes delivered, and removals told, in the order in which they came, although one
/// that goes to the disk takes longer than its successors.
///
/// Each of them takes a place when it comes. Once it has taken effect it is delivered, or waits for
/// those before it. A removal may be of very many objects, and is told in turns. One thread.
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

    struct Removal
    {
        QStringList names;
        QString remover;
        qint64 time = 0;             ///< in milliseconds since the epoch
        std::function<void()> reply; ///< the reply, if it waits with the removal
        int next = 0;                ///< index of the first name that is not told yet

        /// Whether a client is left out of the removal of an object.
        bool spares(const QString &client, const QString &object) const;

    private:
        friend class PublishOrder;
        QSet<QString> _late;                    // clients that have come after it
        QHash<QString, QSet<QString>> _skipped; // objects by client
    };
    /// Tells of some names. False if there are more: resume() goes on.
    using Tell = std::function<bool(Removal &)>;

    PublishOrder(Deliver deliver, Tell tell);

    quint64 takePlace();
    /// Gives the place up: nothing is to be delivered.
    void leave(quint64 place);
    /// Delivers a publish as soon as none is before it, and then those that waited for it.
    void takeEffect(quint64 place, const Publish &publish);

    /// Tells of a removal as soon as nothing is before it.
    void takeEffect(quint64 place, Removal removal);
    /// Goes on with a removal that was not told in one turn.
    void resume();

    /// Whether so much waits that replies have to wait, too.
    bool isFull() const;

    /// Leaves a client out that has just been told the newest values of these objects, so that it
    /// hears of no older value afterwards.
    void skip(const QString &client, const QSet<QString> &objects);
    /// Leaves a client out of all removals that wait: it has subscribed to removals just now.
    void skipRemovals(const QString &client);

private:
    enum State { Expected, Effective, Left };
    struct Place
    {
        State state = Expected;
        Publish publish;
        std::unique_ptr<Removal> removal; // in place of a publish
        qint64 cost = 0;                  // of keeping it, in bytes
    };

    static void skip(Removal &removal, const QString &client, const QSet<QString> &objects);
    Place &at(quint64 place);
    void proceed();

    const Deliver _deliver;
    const Tell _tell;
    bool _isTelling = false; // the first place is a removal that is told in turns
    std::deque<Place> _places;
    quint64 _first = 1; // number of the first place
    qint64 _waitingBytes = 0;
};

} // namespace bus
