#pragma once

#include <trelancommand.h>
#include <trelanobject.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

/// What is on the bus as people and as scripts want to see it. Pure functions, everything escaped.
/// Tables have local times, and JSON is compact, on one line, with times in UTC.
namespace trelanctl
{

/// \brief A heading and one line for each of \a objects, in aligned columns.
///
/// The content column is cut so that lines fit into \a width cells; 0 is no limit.
QStringList objectTable(const QList<bus::TrelanObject> &objects, int width);

/// The time is null if it is no time that can be written.
QString objectJson(const bus::TrelanObject &object);

/// The names of the set flags, separated by commas, unknown ones in hexadecimal.
QString flagNames(const bus::TrelanObject &object);

/// The cells of a change: name, publisher, time and content. What tells of a change knows no flags.
QStringList changeCells(const bus::TrelanObject &change);
QString changeJson(const bus::TrelanObject &change);

/// The parameters of an answer, as JSON.
QString answerText(const bus::TrelanCommand &answer);
QString answerJson(const bus::TrelanCommand &answer);

/// \brief A log line that came over the bus, coloured by its prefix if \a coloured.
QString logText(const bus::TrelanCommand &saveLog, bool coloured);
QString logJson(const bus::TrelanCommand &saveLog);

/// A heading and one line for each of \a clients, as the bus describes them.
QStringList clientTable(const QVariantList &clients, int width);
QString clientJson(const QVariant &client);

} // namespace trelanctl
