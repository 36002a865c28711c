#pragma once

#include <QtCore/QStringList>

#include <optional>

/// The rules of wildcard matching written down naively, one after the other, and apart from the
/// library's matcher, which has to agree with them on every pair.
namespace reference
{

/// What can be said without looking at single segments; nothing if that is not enough.
inline std::optional<bool> judgeText(const QString &name, const QString &wildcard)
{
    const int length = wildcard.length();
    if (name == QString() || wildcard == QString())
        return false;
    if (name == wildcard || wildcard == QStringLiteral("*"))
        return true;

    const bool plusForm = wildcard.right(2) == QStringLiteral(".+") ||
                          wildcard.indexOf(QStringLiteral(".+.")) != -1 ||
                          wildcard.left(2) == QStringLiteral("+.");
    const bool starForm =
        wildcard.left(2) == QStringLiteral("*.") || wildcard.right(2) == QStringLiteral(".*");
    if (!plusForm && !starForm)
        return false;

    int first = 0;
    while (first < length && wildcard.mid(first, 2) != QStringLiteral("+."))
        ++first;
    if (first < length && first != 0 && wildcard[first - 1] != QLatin1Char('.'))
        return false;
    int last = length - 1;
    while (last >= 0 && wildcard.mid(last, 2) != QStringLiteral(".+"))
        --last;
    if (1 <= last && last < length - 2 && wildcard[last + 2] != QLatin1Char('.'))
        return false;
    if (wildcard[0] == QLatin1Char('.') || wildcard[length - 1] == QLatin1Char('.'))
        return false;

    const int names = name.count(QLatin1Char('.')) + 1;
    const int segments = wildcard.count(QLatin1Char('.')) + 1;
    if (!starForm && segments != names)
        return false;
    if (starForm && (segments > names || wildcard[length - 1] != QLatin1Char('*')))
        return false;
    return std::nullopt;
}

inline bool judgeSegments(const QString &name, const QString &wildcard)
{
    const QString plus = QStringLiteral("+");
    const QString star = QStringLiteral("*");
    const QStringList n = name.split(QLatin1Char('.'));
    QStringList w = wildcard.split(QLatin1Char('.'));

    QStringList run;
    for (const QString &segment : w + QStringList {plus}) { // the last one stands for the end
        if (segment != plus && segment != star)
            run << segment;
        else if (!run.isEmpty() && !name.contains(run.join(QLatin1Char('.'))))
            return false;
    }

    if (wildcard[0] == QLatin1Char('*')) {
        QStringList rest = w.mid(1);
        while (!rest.isEmpty() && rest.first() == plus)
            rest.removeFirst();
        if (rest.isEmpty() || rest.first().isEmpty() || rest == QStringList {star})
            return n.size() >= w.size();
        if (rest.first() == star || !n.contains(rest.first()))
            return false;
        for (int i = n.indexOf(rest.first()); i > 0; --i)
            rest.prepend(plus);
        w = rest;
    }
    if (wildcard[wildcard.length() - 1] == QLatin1Char('*')) {
        w.removeLast();
        if (w.size() > n.size())
            return false;
        while (w.size() < n.size())
            w << plus;
    }

    bool same = w.size() == n.size();
    for (int i = 0; same && i < n.size(); ++i)
        same = w[i] == plus || w[i] == n[i];
    return same;
}

inline bool matches(const QString &name, const QString &wildcard)
{
    const std::optional<bool> verdict = judgeText(name, wildcard);
    return verdict ? *verdict : judgeSegments(name, wildcard);
}

} // namespace reference
