#pragma once

#include <trelanobject.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

/// Objects as people and as scripts want to see them. Pure functions, everything escaped.
namespace trelanctl
{

/// \brief A heading and one line for each of \a objects, in aligned columns.
///
/// The content column is cut so that lines fit into \a width cells; 0 is no limit. The times are
/// local.
QStringList objectTable(const QList<bus::TrelanObject> &objects, int width);

/// One line of compact JSON; the time is UTC, null if it is no time that can be written.
QString objectJson(const bus::TrelanObject &object);

/// The names of the set flags, separated by commas, unknown ones in hexadecimal.
QString flagNames(const bus::TrelanObject &object);

} // namespace trelanctl
