#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// JSON text from a QVariantMap, in less time than QJsonDocument takes. Unusual values are left to
/// QJsonDocument itself. Internal to the libraries; thread-safe.
namespace bus::json
{

/// What QJsonDocument::fromVariant(\a map).toJson() returns, to the byte.
QByteArray indented(const QVariantMap &map);

/// What QJsonDocument::fromVariant(\a map).toJson(QJsonDocument::Compact) returns, to the byte. A
/// whole number above 2^53 comes out as the double that is next to it.
QByteArray compact(const QVariantMap &map);
/// Appends what compact() returns. False if exact() returns something else.
bool appendCompact(QByteArray &out, const QVariantMap &map);

/// What compact() returns, but every qlonglong and qulonglong comes out as it is. A map that is
/// nested more than 128 levels deep is written as compact() does it.
QByteArray exact(const QVariantMap &map);
void appendExact(QByteArray &out, const QVariantMap &map);

/// Appends \a text as a JSON string, with its quotes.
void appendString(QByteArray &out, const QString &text);
/// Appends \a utf8, which has to be sound UTF-8, as a JSON string, with its quotes.
void appendString(QByteArray &out, const QByteArray &utf8);

} // namespace bus::json
