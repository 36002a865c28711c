#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// JSON text from a QVariantMap: what QJsonDocument writes, to the byte, in less time. Unusual values
/// are left to QJsonDocument itself. Internal to the libraries; thread-safe.
namespace bus::json
{

/// What QJsonDocument::fromVariant(\a map).toJson() returns.
QByteArray indented(const QVariantMap &map);
/// What QJsonDocument::fromVariant(\a map).toJson(QJsonDocument::Compact) returns.
QByteArray compact(const QVariantMap &map);
/// Appends what compact() returns.
void appendCompact(QByteArray &out, const QVariantMap &map);

/// Appends \a text as a JSON string, with its quotes.
void appendString(QByteArray &out, const QString &text);
/// Appends \a utf8, which has to be sound UTF-8, as a JSON string, with its quotes.
void appendString(QByteArray &out, const QByteArray &utf8);

/// \brief While it lives, a map that compact() has written on this thread need not be written again
/// where it is part of another one: ids are made of the same text that is sent.
class Keep
{
public:
    Keep();
    ~Keep();
    Q_DISABLE_COPY(Keep)
};

} // namespace bus::json
