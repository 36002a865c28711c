#pragma once

#include <QtCore/QString>

namespace trelanctl
{

/// \brief What whoever writes \a wildcard may not expect of it, with the rule behind that; empty if
/// there is nothing to say. Pure; the text is not escaped.
///
/// A wildcard is judged by the names that an object can have, which have no empty segments and none
/// that is "+" or "*".
QString wildcardAdvice(const QString &wildcard);

} // namespace trelanctl
