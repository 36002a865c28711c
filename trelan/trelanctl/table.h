#pragma once

#include <QtCore/QList>
#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace trelanctl
{

/// \brief One line of aligned columns.
///
/// \a widths grows to what the cells need, up to a bound: one absurdly long name should not push
/// the columns of all other lines off the screen. The last cell is cut so that the line fits into
/// \a width cells; 0 is no limit. The function is pure, and its cells are escaped already.
QString tableLine(const QStringList &cells, QVector<int> &widths, int width);

/// Lines of equal columns.
QStringList table(const QList<QStringList> &rows, int width);

} // namespace trelanctl
