#pragma once

#include <QtCore/QStringList>

#include <optional>

/// The rules of wildcard matching written down naively, one after the other, and apart from the
/// library's matcher, which has to agree with them on every pair.
namespace reference
{

const QString PLUS = QStringLiteral("+");
const QString STAR = QStringLiteral("*");
const QString DOT = QStringLiteral(".");

inline std::optional<bool> judgeTexts(const QString &name, const QString &wildcard)
{
    if (name == QString() || wildcard == QString())
        return false;
    if (name == wildcard || wildcard == STAR)
        return true;

    const bool plusForm = wildcard.right(2) == DOT + PLUS || wildcard.left(2) == PLUS + DOT ||
                          wildcard.split(DOT + PLUS + DOT).size() > 1;
    const bool starForm = wildcard.left(2) == STAR + DOT || wildcard.right(2) == DOT + STAR;
    if (!plusForm && !starForm)
        return false;

    const int first = wildcard.indexOf(PLUS + DOT);
    if (first > 0 && wildcard.mid(first - 1, 1) != DOT)
        return false;
    const int last = wildcard.lastIndexOf(DOT + PLUS);
    if (last > 0 && last < wildcard.size() - 2 && wildcard.mid(last + 2, 1) != DOT)
        return false;
    if (wildcard.left(1) == DOT || wildcard.right(1) == DOT)
        return false;

    const int surplus = wildcard.count(DOT) - name.count(DOT);
    if (starForm ? surplus > 0 || wildcard.right(1) != STAR : surplus != 0)
        return false;
    return std::nullopt;
}

inline bool judgeSegments(const QString &name, const QString &wildcard)
{
    const QStringList n = name.split(DOT);
    QStringList w = wildcard.split(DOT);
    QStringList run;
    for (const QString &segment : w + QStringList {PLUS}) { // the added "+" ends the last run
        if (segment != PLUS && segment != STAR)
            run << segment;
        else if (!run.isEmpty() && !name.contains(run.join(DOT)))
            return false;
    }
    if (wildcard.left(1) == STAR) {
        QStringList rest = w.mid(1);
        while (!rest.isEmpty() && rest.first() == PLUS)
            rest.removeFirst();
        if (rest.isEmpty() || rest.first().isEmpty() || rest == QStringList {STAR})
            return n.size() >= w.size();
        if (rest.first() == STAR || !n.contains(rest.first()))
            return false;
        for (int i = n.indexOf(rest.first()); i > 0; --i)
            rest.prepend(PLUS);
        w = rest;
    }
    if (wildcard.right(1) == STAR) {
        w.removeLast();
        while (w.size() < n.size())
            w << PLUS;
    }
    bool same = w.size() == n.size();
    for (int i = 0; same && i < n.size(); ++i)
        same = w[i] == PLUS || w[i] == n[i];
    return same;
}

inline bool matches(const QString &name, const QString &wildcard)
{
    const std::optional<bool> verdict = judgeTexts(name, wildcard);
    return verdict ? *verdict : judgeSegments(name, wildcard);
}

} // namespace reference
