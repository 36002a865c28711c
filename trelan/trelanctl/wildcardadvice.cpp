#include "wildcardadvice.h"

#include <trelanobject.h>

#include <QtCore/QStringList>

#include <algorithm>

namespace trelanctl
{

namespace
{

const QString PLUS = QStringLiteral("+");
const QString STAR = QStringLiteral("*");
const QString WHOLE_SEGMENTS =
    QStringLiteral("'*' and '+' count only as whole segments between dots");

bool isWild(const QString &segment)
{
    return segment == PLUS || segment == STAR;
}

bool isGlued(const QString &segment)
{
    return !isWild(segment) && (segment.contains(PLUS) || segment.contains(STAR));
}

/// A wildcard in its segments.
struct Wildcard
{
    explicit Wildcard(const QString &wildcard)
        : text(wildcard)
        , segments(wildcard.split(QLatin1Char('.')))
    {
        std::copy_if(segments.begin(), segments.end(), std::back_inserter(literals),
                     [](const QString &segment) { return !isWild(segment); });
    }

    /// Whether an object can have this name, and the wildcard takes it in and is another text.
    bool takesIn(const QStringList &name) const
    {
        const QString whole = name.join(QLatin1Char('.'));
        const bool isName = std::none_of(name.begin(), name.end(), [](const QString &segment) {
            return segment.isEmpty() || isWild(segment);
        });
        return isName && whole != text && bus::TrelanObject::testWildCard(whole, text);
    }

    /// Whether a wildcard segment stands between literal ones.
    bool isSpread() const
    {
        const auto first = std::find_if_not(segments.begin(), segments.end(), isWild);
        return !std::equal(literals.begin(), literals.end(), first);
    }

    const QString text;
    const QStringList segments;
    QStringList literals;
};

/// A segment that is none of the wildcard's.
QString otherThan(const Wildcard &wildcard)
{
    return QString(wildcard.text.size() + 1, QLatin1Char('x'));
}

/// The wildcard with a segment that occurs nowhere in place of each that is wild.
QStringList exampleOf(const Wildcard &wildcard)
{
    QStringList name = wildcard.segments;
    for (int i = 0; i < name.size(); ++i) {
        const bool inside = i > 0 && i < name.size() - 1; // where a star stands for itself
        if (name[i] == PLUS || (name[i] == STAR && !inside))
            name[i] = otherThan(wildcard);
    }
    return name;
}

/// Decides by examples, one of which is taken in if anything is. All literals have to occur side by
/// side somewhere in a name.
bool takesInOthers(const Wildcard &wildcard)
{
    const QStringList example = exampleOf(wildcard);
    const QStringList &literals = wildcard.literals;
    QStringList words = literals;
    words.removeAll(QString());
    QStringList others;
    for (int i = 0; i < example.size(); ++i)
        others += otherThan(wildcard);
    // A star at the end leaves room for all literals behind the rest. A star in front that has an
    // empty segment behind it asks for nothing but the literals, wherever they are.
    if (wildcard.takesIn(example + words) || wildcard.takesIn(others + words + others) ||
        wildcard.takesIn((words + others).mid(0, example.size())))
        return true;
    // Without a star they have to occur where the wildcard has its own segments.
    for (int at = 0; at + literals.size() <= example.size(); ++at) {
        QStringList name = example;
        for (int i = 0; i < literals.size(); ++i) {
            if (wildcard.segments[at + i] == PLUS)
                name[at + i] = literals[i];
        }
        if (wildcard.takesIn(name))
            return true;
    }
    return false;
}

bool hasLostStar(const QStringList &segments)
{
    const bool both = segments.first() == STAR && segments.last() == STAR;
    for (int i = both ? 1 : 0; i < segments.size() - 1; ++i) {
        if (segments[i] == STAR)
            return true;
    }
    return false;
}

/// Why \a wildcard takes in nothing but its own text.
QString ruleAgainst(const Wildcard &wildcard)
{
    if (wildcard.segments.contains(QString()))
        return QStringLiteral("no name has an empty segment");
    if (hasLostStar(wildcard.segments))
        return QStringLiteral("a '*' counts only at the end, or at both ends");
    if (wildcard.text == PLUS)
        return QStringLiteral("a '+' counts only beside another segment");
    if (std::any_of(wildcard.segments.begin(), wildcard.segments.end(), isGlued))
        return WHOLE_SEGMENTS;
    return QStringLiteral("a name would have to contain '%1' too")
        .arg(wildcard.literals.join(QLatin1Char('.')));
}

} // namespace

QString wildcardAdvice(const QString &wildcard)
{
    if (!wildcard.contains(PLUS) && !wildcard.contains(STAR)) // the name of one object
        return {};
    const Wildcard judged(wildcard);
    if (!takesInOthers(judged))
        return QStringLiteral("'%1' can match nothing but itself: %2")
            .arg(wildcard, ruleAgainst(judged));
    if (judged.isSpread())
        return QStringLiteral("'%1' takes in only names that contain '%2': what stands on both "
                              "sides of a '+' has to stand side by side in the name")
            .arg(wildcard, judged.literals.join(QLatin1Char('.')));
    const auto glued = std::find_if(judged.segments.begin(), judged.segments.end(), isGlued);
    if (glued != judged.segments.end())
        return QStringLiteral("'%1' takes '%2' as it stands: %3")
            .arg(wildcard, *glued, WHOLE_SEGMENTS);
    return {};
}

} // namespace trelanctl
