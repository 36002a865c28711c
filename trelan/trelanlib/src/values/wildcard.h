#pragma once

#include <QtCore/QString>

/// The matcher behind TrelanObject::testWildCard(). Internal to the library.
namespace bus::wildcard
{

/// See TrelanObject::testWildCard().
bool matches(const QString &name, const QString &wildcard);

} // namespace bus::wildcard
