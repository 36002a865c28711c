#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// JSON text to a QVariantMap. Internal to the libraries; thread-safe.
namespace bus::json
{

/// A text with so many reserved bytes behind it is read where it is; any other text is copied
/// first.
constexpr int SPARE = 64;

/// \brief Reads \a text into \a object. The result is that of
/// QJsonDocument::fromJson(\a text).object().toVariantMap(), down to the type of every value.
///
/// Unusual texts are left to QJsonDocument. The object is empty if the text is an array or no JSON.
/// Returns false if the text is no JSON; \a errorText is then what QJsonParseError says.
bool read(const QByteArray &text, QVariantMap &object, QString *errorText = nullptr);

} // namespace bus::json
