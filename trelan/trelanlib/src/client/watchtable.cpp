#include "client/watchtable.h"

#include <utility>

namespace bus
{

void WatchTable::add(Number number, const QString &wildcard, const Listener &listener)
{
    _watches.insert(number, {wildcard, listener, {}, {}, false, false});
}

QString WatchTable::remove(Number number)
{
    QString wildcard = _watches.take(number).wildcard;
    for (const Watch &watch : std::as_const(_watches)) {
        if (watch.wildcard == wildcard)
            return {};
    }
    return wildcard;
}

QStringList WatchTable::wildcards() const
{
    QStringList wildcards;
    for (const Watch &watch : _watches)
        wildcards.append(watch.wildcard);
    wildcards.removeDuplicates();
    return wildcards;
}

quint64 WatchTable::beginRound(const QString &wildcard)
{
    QVector<Number> members;
    for (auto watch = _watches.begin(); watch != _watches.end(); ++watch) {
        if (watch->wildcard != wildcard || watch->isWhole || watch->isInRound)
            continue;
        watch->isInRound = true;
        members.append(watch.key());
    }
    if (members.isEmpty())
        return 0;
    ++_openRounds;
    _rounds[wildcard].append({++_lastRound, members});
    return _lastRound;
}

QVector<WatchTable::Number> WatchTable::refuseRound(const QString &wildcard, quint64 round)
{
    QVector<Number> refused;
    QList<Round> &rounds = _rounds[wildcard];
    for (int i = 0; i < rounds.size(); ++i) {
        if (rounds.at(i).number == round) {
            refused = rounds.takeAt(i--).members;
            --_openRounds;
        }
    }
    if (rounds.isEmpty())
        _rounds.remove(wildcard);
    for (const Number number : std::as_const(refused))
        _watches.remove(number);
    return refused;
}

void WatchTable::endRounds()
{
    _rounds.clear();
    _openRounds = 0;
    for (Watch &watch : _watches) {
        watch.told.clear();
        watch.isWhole = false;
        watch.isInRound = false;
    }
}

void WatchTable::takeObject(const TrelanObject &object, Incoming::Stored stored, size_t digest)
{
    const QList<Number> numbers = _watches.keys(); // a listener may end watches
    for (const Number number : numbers) {
        const auto watch = _watches.find(number);
        if (watch != _watches.end() && TrelanObject::testWildCard(object.name(), watch->wildcard))
            hand(*watch, object, stored, digest);
    }
}

size_t WatchTable::digestOf(const TrelanObject &object)
{
    return qHash(object.uid()) | 1U;
}

void WatchTable::hand(Watch &watch, const TrelanObject &object, Incoming::Stored stored,
                      size_t digest)
{
    if (digest != 0) {
        const QString name = object.name();
        const auto known = watch.seen.constFind(name);
        const bool isKnown = known != watch.seen.constEnd() && *known == digest;
        watch.seen.insert(name, digest);
        if (watch.isInRound)
            watch.told.insert(name);
        if (isKnown && stored == Incoming::Now)
            return;
    }
    watch.listener.changed(object, digest == 0);
}

void WatchTable::takeLoaded(const QString &wildcard, const QMap<QString, TrelanObject> &objects)
{
    const auto rounds = _rounds.constFind(wildcard);
    if (rounds == _rounds.constEnd())
        return;
    const QVector<Number> members = rounds->first().members;
    for (const TrelanObject &object : objects) {
        for (const Number number : members) {
            const auto watch = _watches.find(number);
            if (watch != _watches.end() && !watch->told.contains(object.name()))
                hand(*watch, object, Incoming::Now, digestOf(object));
        }
    }
}

void WatchTable::takeRemoval(const QString &name)
{
    const QList<Number> numbers = _watches.keys();
    for (const Number number : numbers) {
        const auto watch = _watches.find(number);
        if (watch == _watches.end() || watch->seen.remove(name) == 0)
            continue;
        watch->told.remove(name);
        watch->listener.removed(name);
    }
}

void WatchTable::takeTold(const QString &wildcard)
{
    const auto rounds = _rounds.find(wildcard);
    if (rounds == _rounds.end())
        return;
    const QVector<Number> members = rounds->takeFirst().members;
    --_openRounds;
    if (rounds->isEmpty())
        _rounds.erase(rounds);
    for (const Number number : members) {
        const auto watch = _watches.find(number);
        if (watch != _watches.end())
            close(*watch);
    }
}

/// Tells what the watch has seen and was not told: it is gone.
void WatchTable::close(Watch &watch)
{
    QStringList gone;
    for (auto seen = watch.seen.begin(); seen != watch.seen.end();) {
        if (watch.told.contains(seen.key())) {
            ++seen;
            continue;
        }
        gone.append(seen.key());
        seen = watch.seen.erase(seen);
    }
    gone.sort();
    watch.told.clear();
    watch.isInRound = false;
    watch.isWhole = true;
    const Listener listener = watch.listener; // which may end the watch
    for (const QString &name : std::as_const(gone))
        listener.removed(name);
    listener.whole();
}

} // namespace bus
