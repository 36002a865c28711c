#include "rules/subscriptionindex.h"

#include <trelanobject.h>

#include <QtCore/QStringRef>
#include <QtCore/QVarLengthArray>
#include <QtCore/QVector>

#include <algorithm>

namespace bus
{

namespace
{

constexpr int MAX_NAMES = 100000;
// A name may match any number of patterns: the memory for names is counted in matches, of which
// each name takes a share at least.
constexpr int MAX_MATCHES = 1000000;
constexpr int MIN_COST = MAX_MATCHES / MAX_NAMES;
constexpr int CHARACTERS = 8; // so many of a name take the memory of a match
// Trying more new patterns takes longer than finding all matches anew.
constexpr int MAX_TRIED = 64;

const QLatin1Char DOT('.');
const QLatin1Char STAR('*');
const QLatin1String PLUS("+");

/// Whether a wildcard may match another name than its own text.
bool mayBePattern(const QString &wildcard)
{
    const auto begins = [&](const char *text) { return wildcard.startsWith(QLatin1String(text)); };
    const auto ends = [&](const char *text) { return wildcard.endsWith(QLatin1String(text)); };
    return wildcard == STAR || begins("*.") || ends(".*") || begins("+.") || ends(".+") ||
           wildcard.contains(QLatin1String(".+."));
}

/// What remembering a name takes, counted in matches.
int costOf(const QString &name, size_t matches)
{
    return qMax(MIN_COST, qMax(int(matches), name.size() / CHARACTERS));
}

} // namespace

SubscriptionIndex::SubscriptionIndex()
    : _remembered(MAX_MATCHES)
{}

void SubscriptionIndex::add(const QString &client, const QString &wildcard)
{
    WildcardRef &known = _wildcards[wildcard];
    if (!known) {
        known = std::make_shared<Wildcard>();
        known->text = wildcard;
        known->isPattern = mayBePattern(wildcard);
        if (known->isPattern)
            insertPattern(known);
    }
    known->clients.insert(client);
    _wildcardsOfClient[client].insert(known->text);
}

void SubscriptionIndex::remove(const QString &client, const QString &wildcard)
{
    const auto known = _wildcardsOfClient.find(client);
    if (known == _wildcardsOfClient.end() || !known->remove(wildcard))
        return;
    if (known->isEmpty())
        _wildcardsOfClient.erase(known);
    leave(client, wildcard);
}

void SubscriptionIndex::removeClient(const QString &client)
{
    const QSet<QString> wildcards = _wildcardsOfClient.take(client);
    for (const QString &wildcard : wildcards)
        leave(client, wildcard);
}

bool SubscriptionIndex::contains(const QString &client, const QString &wildcard) const
{
    const auto known = _wildcardsOfClient.constFind(client);
    return known != _wildcardsOfClient.constEnd() && known->contains(wildcard);
}

int SubscriptionIndex::count(const QString &client) const
{
    const auto known = _wildcardsOfClient.constFind(client);
    return known == _wildcardsOfClient.constEnd() ? 0 : known->size();
}

bool SubscriptionIndex::isEmpty() const
{
    return _wildcards.isEmpty();
}

QStringList SubscriptionIndex::receivers(const QString &name)
{
    constexpr int USUAL_PARTIES = 8;
    QVarLengthArray<const QSet<QString> *, USUAL_PARTIES> parties;
    const WildcardRef literal = _wildcards.value(name);
    if (literal)
        parties.push_back(&literal->clients);
    const std::vector<WildcardRef> patterns = patternsOf(name);
    for (const WildcardRef &pattern : patterns) {
        if (pattern != literal)
            parties.push_back(&pattern->clients);
    }
    if (parties.isEmpty())
        return {};
    if (parties.size() == 1)
        return parties.first()->values();
    QSet<QString> all;
    for (const QSet<QString> *party : parties)
        all.unite(*party);
    return all.values();
}

bool SubscriptionAnchor::operator==(const SubscriptionAnchor &other) const
{
    return segments == other.segments && position == other.position && text == other.text;
}

/// Conditions that a name has to meet to match: any one will do. Each is on one segment only, since
/// it is looked up.
std::vector<SubscriptionIndex::Anchor> SubscriptionIndex::anchorsOf(const QString &wildcard)
{
    const QVector<QStringRef> segments = wildcard.splitRef(DOT);
    const bool leadingStar = wildcard.startsWith(STAR);
    const bool trailingStar = wildcard.endsWith(STAR);
    const int literals = segments.size() - int(trailingStar);
    std::vector<Anchor> anchors;
    if (leadingStar) {
        // The text behind the star may stand anywhere. Without a text there nothing can be looked
        // up.
        int first = 1;
        while (first < segments.size() && segments.at(first) == PLUS)
            ++first;
        if (first == segments.size() || segments.at(first).isEmpty() ||
            segments.at(first) == QString(STAR))
            return anchors;
        for (int i = first; i < literals; ++i) {
            if (segments.at(i) != PLUS)
                anchors.push_back({0, -1, segments.at(i).toString()});
        }
        return anchors;
    }
    for (int i = 0; i < literals; ++i) {
        if (segments.at(i) != PLUS)
            anchors.push_back({trailingStar ? 0 : segments.size(), i, segments.at(i).toString()});
    }
    return anchors;
}

int SubscriptionIndex::sizeOf(const Anchor &anchor) const
{
    const auto group = _groups.constFind(anchor);
    return group == _groups.constEnd() ? 0 : group->size();
}

/// Adds a pattern to the group with the fewest patterns.
void SubscriptionIndex::insertPattern(const WildcardRef &pattern)
{
    pattern->number = ++_lastNumber;
    _patterns.emplace(pattern->number, pattern);
    const std::vector<Anchor> anchors = anchorsOf(pattern->text);
    const auto rarest = std::min_element(
        anchors.cbegin(), anchors.cend(),
        [this](const Anchor &a, const Anchor &b) { return sizeOf(a) < sizeOf(b); });
    if (rarest != anchors.cend())
        pattern->anchor = *rarest;
    _groups[pattern->anchor].insert(pattern->number, pattern);
}

void SubscriptionIndex::removePattern(const WildcardRef &pattern)
{
    _patterns.erase(pattern->number);
    const auto group = _groups.find(pattern->anchor);
    group->remove(pattern->number);
    if (group->isEmpty())
        _groups.erase(group);
}

void SubscriptionIndex::leave(const QString &client, const QString &wildcard)
{
    const auto found = _wildcards.find(wildcard);
    const WildcardRef known = *found;
    known->clients.remove(client);
    if (!known->clients.isEmpty())
        return;
    _wildcards.erase(found);
    if (known->isPattern)
        removePattern(known);
    *known = Wildcard(); // names may remember it for a long time
}

/// All patterns that match the name.
std::vector<SubscriptionIndex::WildcardRef> SubscriptionIndex::find(const QString &name) const
{
    std::vector<WildcardRef> matches;
    const auto tryGroup = [&](const Anchor &anchor) {
        const auto group = _groups.constFind(anchor);
        if (group == _groups.constEnd())
            return;
        for (const WildcardRef &pattern : *group) {
            if (TrelanObject::testWildCard(name, pattern->text))
                matches.push_back(pattern);
        }
    };
    tryGroup(Anchor());
    const QStringList segments = name.split(DOT);
    QSet<QString> seen {QString()};
    for (int i = 0; i < segments.size(); ++i) {
        const QString &text = segments.at(i);
        tryGroup({segments.size(), i, text});
        tryGroup({0, i, text});
        if (!seen.contains(text))
            tryGroup({0, -1, text});
        seen.insert(text);
    }
    return matches;
}

/// Tries the patterns that are newer than the matches. False if they are too many.
bool SubscriptionIndex::tryNewer(const QString &name, Matches &matches) const
{
    int tried = 0;
    for (auto newer = _patterns.upper_bound(matches.upTo); newer != _patterns.cend(); ++newer) {
        if (++tried > MAX_TRIED)
            return false;
        if (TrelanObject::testWildCard(name, newer->second->text))
            matches.patterns.push_back(newer->second);
    }
    matches.upTo = _lastNumber;
    return true;
}

std::vector<SubscriptionIndex::WildcardRef> SubscriptionIndex::patternsOf(const QString &name)
{
    if (Matches *remembered = _remembered.object(name)) {
        std::vector<WildcardRef> &known = remembered->patterns;
        const auto isGone = [](const WildcardRef &pattern) { return pattern->clients.isEmpty(); };
        known.erase(std::remove_if(known.begin(), known.end(), isGone), known.end());
        const int accounted = costOf(name, known.size());
        if (tryNewer(name, *remembered) && costOf(name, known.size()) <= accounted)
            return known;
    }
    std::vector<WildcardRef> found = find(name);
    _remembered.insert(name, new Matches {found, _lastNumber}, costOf(name, found.size()));
    return found;
}

} // namespace bus
