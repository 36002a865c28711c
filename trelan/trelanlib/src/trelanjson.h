#pragma once

#include "trelanglobal.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// JSON text straight from and to a QVariantMap. Internal to the libraries; all of it thread-safe.
///
/// What comes out is what QJsonDocument makes of the same, to the byte and to the type of every
/// value: it only takes less time. Whatever is unusual is left to QJsonDocument itself.
namespace bus::json
{

/// What QJsonDocument::fromJson(\a text).object().toVariantMap() returns goes into \a object: it is
/// empty if the text is an array or no JSON. False if it is no JSON; \a errorText says then what
/// QJsonParseError says.
///
/// A \a text with reserved space behind it, at least SPARE bytes, is read where it is, any other is
/// copied first.
constexpr int SPARE = 64;
TRELAN_EXPORT bool read(const QByteArray &text, QVariantMap &object, QString *errorText = nullptr);

/// What QJsonDocument::fromVariant(\a map).toJson() returns.
TRELAN_EXPORT QByteArray indented(const QVariantMap &map);
/// The same of toJson(QJsonDocument::Compact).
TRELAN_EXPORT QByteArray compact(const QVariantMap &map);
/// The same, appended.
TRELAN_EXPORT void appendCompact(QByteArray &out, const QVariantMap &map);

/// Appends \a text as a string of such a document, with its quotes.
TRELAN_EXPORT void appendString(QByteArray &out, const QString &text);
/// The same of UTF-8, which has to be sound.
TRELAN_EXPORT void appendString(QByteArray &out, const QByteArray &utf8);

/// \brief While it lives, a map that compact() has written on this thread need not be written again
/// where it is part of another one: ids are made of the same text that is sent.
class TRELAN_EXPORT Keep
{
public:
    Keep();
    ~Keep();
    Q_DISABLE_COPY(Keep)
};

} // namespace bus::json
