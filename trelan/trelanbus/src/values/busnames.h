#pragma once

#include <QtCore/QString>

/// The names that the bus accepts. Every check returns what is wrong with the text, for people, or
/// an empty string.
namespace bus::names
{

constexpr int MAX_CLIENT_NAME = 255;
constexpr int MAX_OBJECT_NAME = 1024;
constexpr int MAX_WILDCARD = 1024;

QString clientNameFault(const QString &name);

/// Refuses names that could be published but not be removed: clients trim the names that they
/// remove, and a name with a wildcard segment looks like a subscription.
QString objectNameFault(const QString &name);

QString wildcardFault(const QString &wildcard);

/// Whether an object of this name is a command to all clients, which is passed on and never kept.
bool isCommandName(const QString &name);

/// An id for a message or an object, unlike any other.
QString freshUid();

/// A client's text for a log line: characters that are not printable are escaped.
QString printable(const QString &text);

/// A client's name for a log line or a description: printable, in quotes, and cut when it is long.
QString quoted(const QString &text);

} // namespace bus::names
