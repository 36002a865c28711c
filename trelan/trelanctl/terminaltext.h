#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

/// Makes text of other clients fit for a terminal. All functions are pure.
namespace trelanctl::terminal
{

/// \brief \a text on one line and without anything that a terminal would obey.
///
/// Control characters, escape sequences, controls of the writing direction, invisible and
/// unassigned characters are shown as \\uXXXX. A backslash is shown as two, so that nobody can
/// fake such a text.
QString escaped(const QString &text);

/// \brief JSON text with everything that a terminal would obey written as \\uXXXX.
///
/// Such characters can only stand inside the strings of JSON, where the escape means the same
/// character. Line breaks between the lines stay.
QString escapedJson(const QByteArray &json);

/// Number of terminal cells that \a text takes: 2 for a wide East Asian character, 0 for a mark
/// that sits on the character before it.
int width(const QString &text);

/// \a text with blanks up to \a cells. A longer text stays as it is.
QString padded(const QString &text, int cells);

/// \a text if it fits into \a cells, else its beginning and an ellipsis.
QString cut(const QString &text, int cells);

} // namespace trelanctl::terminal
