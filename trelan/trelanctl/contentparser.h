#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

namespace trelanctl
{

/// \brief The content of an object as it is written on a command line.
///
/// On a fault content is empty, and errorText says what was wrong and what was expected. What
/// errorText quotes is escaped.
struct ParsedContent
{
    QVariantMap content;
    QString errorText;

    bool isValid() const { return errorText.isEmpty(); }
};

/// \brief Reads a content off the arguments of a command line: a single one that begins with a
/// brace is a JSON object, others are key=value pairs. Pure.
///
/// A value is JSON if it parses as such, else a string. A key may occur once.
ParsedContent parseContent(const QStringList &arguments);

/// Reads a content off \a json, which has to be one JSON object. Pure.
ParsedContent parseJsonContent(const QByteArray &json);

} // namespace trelanctl
