#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

/// Text that came from somebody else, made fit for a terminal. Pure functions.
namespace trelanctl::terminal
{

/// \brief \a text on one line and without anything a terminal would obey.
///
/// Control characters, escape sequences, controls of the writing direction, invisible and
/// unassigned characters are shown as \\uXXXX, and a backslash as two, so that nobody can pretend.
QString escaped(const QString &text);

/// \brief JSON text with the same characters written as \\uXXXX.
///
/// In JSON text they can only stand inside strings, so that it still means the same. Line breaks
/// between its lines stay.
QString escapedJson(const QByteArray &json);

/// Number of terminal cells that \a text takes: 2 for wide East Asian characters, 0 for marks that
/// sit on the one before.
int width(const QString &text);

/// \a text with blanks up to \a cells; a longer one as it is.
QString padded(const QString &text, int cells);

/// \a text if it fits into \a cells, else its beginning and an ellipsis.
QString cut(const QString &text, int cells);

} // namespace trelanctl::terminal
