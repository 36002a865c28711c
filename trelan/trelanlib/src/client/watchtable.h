#pragma once

#include "codec/incoming.h"

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <cstddef>
#include <functional>

namespace bus
{

/// \brief Which watches of a client are told of what. Internal to the library; pure, one thread.
///
/// For each watch it remembers which stored objects were handed over, each by a digest of its
/// value. So a value that is told once more is recognised, and so are objects that are gone when
/// the values that answer a subscription have all been told. Watches of one wildcard share one
/// subscription on the bus.
class WatchTable
{
public:
    using Number = quint64;

    /// What a watch is told. An end of its round means that it is whole.
    struct Listener
    {
        std::function<void(const TrelanObject &, bool isEvent)> changed;
        std::function<void(const QString &)> removed;
        std::function<void()> whole;
    };

    void add(Number number, const QString &wildcard, const Listener &listener);
    /// Returns the wildcard if no other watch has it, so that the subscription can end.
    QString remove(Number number);
    bool contains(Number number) const { return _watches.contains(number); }

    /// Every wildcard once.
    QStringList wildcards() const;

    /// The bus was asked for the values of \a wildcard: those of its watches that are not whole
    /// become so by the answer. Returns the number of the round; 0 if there is no such watch, and
    /// nothing to ask.
    quint64 beginRound(const QString &wildcard);
    /// The bus has refused that: the watches of the round end. Returns them.
    QVector<Number> refuseRound(const QString &wildcard, quint64 round);
    /// How many rounds have begun and not ended.
    int openRounds() const { return _openRounds; }
    /// The connection has ended, and with it what was asked. All watches want a round on the next.
    void endRounds();

    /// An object with an unknown digest, 0, is an event, and is not remembered.
    void takeObject(const TrelanObject &object, Incoming::Stored stored, size_t digest);
    /// The digest of an object where the bus does not say what is stored.
    static size_t digestOf(const TrelanObject &object);
    void takeRemoval(const QString &name);
    /// What was loaded takes the place of values that are told, in the oldest round of this
    /// wildcard. An object that has changed since the round began is left out: the change counts.
    void takeLoaded(const QString &wildcard, const QMap<QString, TrelanObject> &objects);
    /// The values of the oldest round of this wildcard have all been told.
    void takeTold(const QString &wildcard);

private:
    struct Watch
    {
        QString wildcard;
        Listener listener;
        QHash<QString, size_t> seen; // digest by the name of the object
        QSet<QString> told;          // names, in the present round
        bool isWhole = false;
        bool isInRound = false;
    };

    struct Round
    {
        quint64 number;
        QVector<Number> members;
    };

    void hand(Watch &watch, const TrelanObject &object, Incoming::Stored stored, size_t digest);
    void close(Watch &watch);

    QMap<Number, Watch> _watches;         // in the order in which they were made
    QHash<QString, QList<Round>> _rounds; // by wildcard, the oldest first
    int _openRounds = 0;                  // of all wildcards
    quint64 _lastRound = 0;
};

} // namespace bus
