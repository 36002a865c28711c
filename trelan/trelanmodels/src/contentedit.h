#pragma once

#include <QtCore/QString>
#include <QtCore/QVariant>

#include <optional>

/// Contents as people see and change them. Internal to the library.
namespace bus::edit
{

/// A content as JSON in one line; whole numbers keep all their digits.
QString toText(const QVariantMap &content);

/// A value of a content for a cell: as it is, but lists and maps as JSON.
QVariant toCell(const QVariant &value);

/// \brief What an editor has made of \a old. Nothing if it cannot be meant.
///
/// An editor may return a text whatever it was given. The text for a number has to be a number, for
/// a list or a map JSON of that kind. Where nothing was, a text is JSON if it can be, as for the
/// tool.
std::optional<QVariant> fromCell(const QVariant &edited, const QVariant &old);

/// The content in a text; nothing if that is no JSON object.
std::optional<QVariantMap> fromText(const QString &text);

} // namespace bus::edit
