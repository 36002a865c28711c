#pragma once

#include <trelancommand.h>
#include <trelanobject.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

/// What is on the bus, written for people and for scripts. All functions are pure and escape what
/// they quote. Tables have local times; JSON is compact, on one line, with times in UTC.
namespace trelanctl
{

/// \brief A heading and one line for each of \a objects, in aligned columns.
///
/// The content column is cut so that lines fit into \a width cells; 0 is no limit.
QStringList objectTable(const QList<bus::TrelanObject> &objects, int width);

/// An object as JSON. A time that cannot be written is null.
QString objectJson(const bus::TrelanObject &object);

/// The names of the set flags, separated by commas, with unknown flags in hexadecimal.
QString flagNames(const bus::TrelanObject &object);

/// The cells of a change: name, publisher, time and content. A notification carries no flags.
QStringList changeCells(const bus::TrelanObject &change);
QString changeJson(const bus::TrelanObject &change);

/// The cells of a removal, of which only the name is known and when it was heard of.
QStringList removalCells(const QString &name);
QString removalJson(const QString &name);

/// What the parameter "error" of an answer says, a text as it is and anything else as JSON. Null if
/// there is none, or if it is null.
QString errorOf(const bus::TrelanCommand &answer);

/// The parameters of an answer, as JSON.
QString answerText(const bus::TrelanCommand &answer);
QString answerJson(const bus::TrelanCommand &answer);

/// \brief A log line that came over the bus, coloured by its prefix if \a coloured.
QString logText(const bus::TrelanCommand &saveLog, bool coloured);
QString logJson(const bus::TrelanCommand &saveLog);

/// A heading and one line for each of \a clients, which are as the bus lists them.
QStringList clientTable(const QVariantList &clients, int width);
QString clientJson(const QVariant &client);
/// A line for each thing that the bus knows of a client and its owner.
QStringList clientLines(const QVariantMap &client);

} // namespace trelanctl
