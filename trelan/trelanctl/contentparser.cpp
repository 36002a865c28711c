#include "contentparser.h"

#include "terminaltext.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <cmath>

namespace trelanctl
{

namespace
{

const int MAX_QUOTED = 60;

ParsedContent fault(const QString &text)
{
    ParsedContent parsed;
    parsed.errorText = text;
    return parsed;
}

QString quoted(const QString &text)
{
    return QStringLiteral("'%1'").arg(terminal::cut(terminal::escaped(text), MAX_QUOTED));
}

/// Reads a value as the only entry of an array, since QJsonDocument takes objects and arrays only.
QVariant parseValue(const QString &text)
{
    const QJsonDocument document = QJsonDocument::fromJson("[" + text.toUtf8() + "]");
    if (!document.isArray() || document.array().size() != 1)
        return text;
    const QJsonValue value = document.array().first();
    // A number beyond all doubles is read as infinity, which JSON cannot say again.
    if (value.isDouble() && !std::isfinite(value.toDouble()))
        return text;
    return value.toVariant();
}

} // namespace

ParsedContent parseContent(const QStringList &arguments)
{
    if (arguments.size() == 1 && arguments.first().trimmed().startsWith(QLatin1Char('{')))
        return parseJsonContent(arguments.first().toUtf8());

    ParsedContent parsed;
    for (const QString &argument : arguments) {
        const int split = argument.indexOf(QLatin1Char('='));
        if (split <= 0) {
            return fault(
                QStringLiteral("%1 is neither a JSON object nor key=value").arg(quoted(argument)));
        }
        const QString key = argument.left(split);
        if (parsed.content.contains(key))
            return fault(QStringLiteral("the key %1 is given twice").arg(quoted(key)));
        parsed.content.insert(key, parseValue(argument.mid(split + 1)));
    }
    return parsed;
}

ParsedContent parseJsonContent(const QByteArray &json)
{
    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError) {
        return fault(QStringLiteral("no JSON object: %1 at byte %2 of %3")
                         .arg(error.errorString())
                         .arg(error.offset)
                         .arg(json.size()));
    }
    if (!document.isObject())
        return fault(QStringLiteral("a JSON object was expected, not an array"));
    ParsedContent parsed;
    parsed.content = document.object().toVariantMap();
    return parsed;
}

} // namespace trelanctl
