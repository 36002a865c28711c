#include "values/wildcard.h"

#include <QtCore/QStringList>
#include <QtCore/QVector>

// The steps below are the contract of the bus, one by one. Servers and clients have to agree on
// every outcome, the surprising ones included, so no step may be simplified. "Starts with" and
// "ends with" are about the characters of a wildcard, not about its segments.
namespace bus::wildcard
{

namespace
{

using Segments = QVector<QStringRef>;

const QLatin1Char DOT('.');
const QLatin1Char STAR('*');
const QString PLUS_SEGMENT = QStringLiteral("+");
const QString STAR_SEGMENT = QStringLiteral("*");

bool hasPlusForm(const QString &wildcard)
{
    return wildcard.endsWith(QLatin1String(".+")) || wildcard.contains(QLatin1String(".+.")) ||
           wildcard.startsWith(QLatin1String("+."));
}

bool hasStarForm(const QString &wildcard)
{
    return wildcard.startsWith(QLatin1String("*.")) || wildcard.endsWith(QLatin1String(".*"));
}

/// Looks at the very first "+." and the very last ".+" only; any other "+" may be glued to
/// anything.
bool isWellFormed(const QString &wildcard)
{
    const int firstPlus = wildcard.indexOf(QLatin1String("+."));
    if (firstPlus > 0 && wildcard.at(firstPlus - 1) != DOT)
        return false;
    const int lastPlus = wildcard.lastIndexOf(QLatin1String(".+"));
    if (lastPlus >= 1 && lastPlus < wildcard.size() - 2 && wildcard.at(lastPlus + 2) != DOT)
        return false;
    return !wildcard.startsWith(DOT) && !wildcard.endsWith(DOT);
}

/// Whether all literal segments of the wildcard, joined, stand in the name. The run is never
/// started anew at a wildcard segment, hence "a.+.c" does not take in "a.b.c"; and since a run
/// that is in the name has all its beginnings there too, the longest one decides.
bool holdsLiteralRun(const QString &name, const Segments &wildcard)
{
    QStringList literals;
    for (const QStringRef &segment : wildcard) {
        if (segment != STAR_SEGMENT && segment != PLUS_SEGMENT)
            literals.append(segment.toString());
    }
    return literals.isEmpty() || name.contains(literals.join(DOT));
}

enum class Verdict { Match, NoMatch, Undecided };

/// Replaces a leading star by as many "+" as lead to the first literal segment behind it. The name
/// has at least as many segments as the wildcard.
Verdict resolveLeadingStar(const Segments &name, Segments &wildcard)
{
    int anchor = 1;
    while (anchor < wildcard.size() && wildcard.at(anchor) == PLUS_SEGMENT)
        ++anchor;
    if (anchor == wildcard.size() || wildcard.at(anchor).isEmpty())
        return Verdict::Match;
    if (wildcard.at(anchor) == STAR_SEGMENT)
        return anchor == wildcard.size() - 1 ? Verdict::Match : Verdict::NoMatch;

    const int position = name.indexOf(wildcard.at(anchor));
    if (position < 0)
        return Verdict::NoMatch;
    wildcard = Segments(position, QStringRef(&PLUS_SEGMENT)) + wildcard.mid(anchor);
    return Verdict::Undecided;
}

/// Replaces a trailing star by as many "+" as the name has segments left.
Verdict resolveTrailingStar(const Segments &name, Segments &wildcard)
{
    wildcard.removeLast();
    if (wildcard.size() > name.size())
        return Verdict::NoMatch;
    while (wildcard.size() < name.size())
        wildcard.append(QStringRef(&PLUS_SEGMENT));
    return Verdict::Undecided;
}

bool matchesSegments(const Segments &name, const Segments &wildcard)
{
    if (wildcard.size() != name.size())
        return false;
    for (int i = 0; i < name.size(); ++i) {
        if (wildcard.at(i) != PLUS_SEGMENT && wildcard.at(i) != name.at(i))
            return false;
    }
    return true;
}

} // namespace

bool matches(const QString &name, const QString &wildcard)
{
    if (name.isEmpty() || wildcard.isEmpty())
        return false;
    if (name == wildcard || wildcard == STAR_SEGMENT)
        return true;

    const bool starForm = hasStarForm(wildcard);
    if (!starForm && !hasPlusForm(wildcard))
        return false;
    if (!isWellFormed(wildcard))
        return false;

    const Segments nameSegments = name.splitRef(DOT);
    Segments segments = wildcard.splitRef(DOT);
    if (!starForm && segments.size() != nameSegments.size())
        return false;
    if (starForm && (segments.size() > nameSegments.size() || !wildcard.endsWith(STAR)))
        return false;
    if (!holdsLiteralRun(name, segments))
        return false;

    Verdict verdict = Verdict::Undecided;
    if (wildcard.startsWith(STAR))
        verdict = resolveLeadingStar(nameSegments, segments);
    if (verdict == Verdict::Undecided && wildcard.endsWith(STAR))
        verdict = resolveTrailingStar(nameSegments, segments);
    if (verdict != Verdict::Undecided)
        return verdict == Verdict::Match;
    return matchesSegments(nameSegments, segments);
}

} // namespace bus::wildcard
