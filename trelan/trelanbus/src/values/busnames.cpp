#include "values/busnames.h"

#include <trelancommand.h>

#include <QtCore/QUuid>
#include <QtCore/QVector>

#include <algorithm>

namespace bus::names
{

namespace
{

constexpr int MAX_QUOTED = 200;

bool isControl(QChar c)
{
    return c.category() == QChar::Other_Control;
}

bool hasControl(const QString &text)
{
    return std::any_of(text.cbegin(), text.cend(), isControl);
}

QString lengthFault(const QString &what, const QString &text, int most)
{
    if (text.isEmpty())
        return QStringLiteral("%1 is empty").arg(what);
    if (text.size() > most) {
        return QStringLiteral("%1 of %2 characters is longer than %3")
            .arg(what)
            .arg(text.size())
            .arg(most);
    }
    return {};
}

/// Refuses half a surrogate pair, which does not survive the way to the disk and back.
QString characterFault(const QString &what, const QString &text)
{
    if (hasControl(text))
        return QStringLiteral("%1 %2 holds a control character").arg(what, quoted(text));
    if (!text.isValidUtf16())
        return QStringLiteral("%1 %2 is no valid Unicode text").arg(what, quoted(text));
    return {};
}

/// Whether a name is of the usual kind, so that nothing can be wrong with it.
bool isPlainName(const QString &name)
{
    bool begins = true; // whether a segment begins here
    for (const QChar c : name) {
        const ushort unit = c.unicode();
        if (unit == '.' ? begins : unit <= ' ' || unit >= 0x7f || unit == '+' || unit == '*')
            return false;
        begins = unit == '.';
    }
    return !begins;
}

} // namespace

QString clientNameFault(const QString &name)
{
    const QString what = QStringLiteral("client name");
    const QString fault = lengthFault(what, name, MAX_CLIENT_NAME);
    return fault.isEmpty() ? characterFault(what, name) : fault;
}

QString objectNameFault(const QString &name)
{
    if (name.size() <= MAX_OBJECT_NAME && isPlainName(name))
        return {};
    const QString what = QStringLiteral("object name");
    QString fault = lengthFault(what, name, MAX_OBJECT_NAME);
    if (fault.isEmpty())
        fault = characterFault(what, name);
    if (!fault.isEmpty())
        return fault;
    if (name.front().isSpace() || name.back().isSpace())
        return QStringLiteral("object name %1 begins or ends with white space").arg(quoted(name));
    const QVector<QStringRef> segments = name.splitRef(QLatin1Char('.'));
    for (const QStringRef &segment : segments) {
        if (segment.isEmpty())
            return QStringLiteral("object name %1 has an empty segment").arg(quoted(name));
        if (segment == QLatin1String("+") || segment == QLatin1String("*"))
            return QStringLiteral("object name %1 has a wildcard segment").arg(quoted(name));
    }
    return {};
}

QString wildcardFault(const QString &wildcard)
{
    return lengthFault(QStringLiteral("wildcard"), wildcard, MAX_WILDCARD);
}

bool isCommandName(const QString &name)
{
    static const QString _prefix = TrelanCommand::createObjectName(QString());
    return name.startsWith(_prefix);
}

QString freshUid()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QString printable(const QString &text)
{
    QString shown;
    for (const QChar c : text) {
        if (c.isPrint() || c.isSurrogate())
            shown += c;
        else
            shown += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
    }
    return shown;
}

QString quoted(const QString &text)
{
    QString shown = text.left(MAX_QUOTED);
    shown.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    shown.replace(QLatin1Char('"'), QLatin1String("\\\""));
    const QString end = text.size() > MAX_QUOTED ? QStringLiteral("...\"") : QStringLiteral("\"");
    return QLatin1Char('"') + printable(shown) + end;
}

} // namespace bus::names
