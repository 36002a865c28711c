#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

namespace trelanctl
{

/// \brief The content of an object as it is written on a command line. Pure, no input or output.
///
/// On a fault content is empty and errorText says what was wrong and what was expected; the text
/// it quotes is escaped.
struct ParsedContent
{
    QVariantMap content;
    QString errorText;

    bool isValid() const { return errorText.isEmpty(); }
};

/// \brief One argument that begins with a brace is a JSON object; any others are key=value pairs.
///
/// A value is JSON if it parses as such, else a string; a key may occur once.
ParsedContent parseContent(const QStringList &arguments);

/// \a json has to be one JSON object.
ParsedContent parseJsonContent(const QByteArray &json);

} // namespace trelanctl
