#pragma once

#include <QtCore/QString>

/// What the bus accepts as a name. Every check returns what is wrong with the text, for people, or
/// an empty string.
namespace bus::names
{

constexpr int MAX_CLIENT_NAME = 255;
constexpr int MAX_OBJECT_NAME = 1024;
constexpr int MAX_WILDCARD = 1024;

QString clientNameFault(const QString &name);

/// The clients trim the names that they remove, and a name with a wildcard segment could not be
/// told from a subscription: such objects could be published but not be got rid of.
QString objectNameFault(const QString &name);

QString wildcardFault(const QString &wildcard);

/// Whether an object of this name is a command to everybody, which is passed on and never kept.
bool isCommandName(const QString &name);

/// An id for a message or an object, unlike any other.
QString freshUid();

/// A text from a client as it may stand in a log line: what is not printable is escaped.
QString printable(const QString &text);

/// A name from a client as it may stand in a log line or a description: printable, in quotes, and
/// cut when it is long.
QString quoted(const QString &text);

} // namespace bus::names
