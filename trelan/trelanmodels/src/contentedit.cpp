#include "contentedit.h"

#include <jsonwriter.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <cmath>

namespace bus::edit
{

namespace
{

const QString VALUE = QStringLiteral("v");

bool isContainer(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::QVariantMap:
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
        return true;
    default:
        return false;
    }
}

/// Whether both are numbers, both truth values and so on.
bool areAlike(const QVariant &one, const QVariant &other)
{
    const auto kind = [](const QVariant &value) {
        switch (value.userType()) {
        case QMetaType::Bool:
            return QMetaType::Bool;
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Float:
        case QMetaType::Double:
            return QMetaType::Double;
        case QMetaType::QStringList:
            return QMetaType::QVariantList;
        default:
            return QMetaType::Type(value.userType());
        }
    };
    return kind(one) == kind(other);
}

/// The value that a text of JSON has; invalid if it is none.
QVariant parse(const QString &text)
{
    const QByteArray json = "[" + text.toUtf8() + "]";
    const QVariantList values = QJsonDocument::fromJson(json).toVariant().toList();
    return values.size() == 1 ? values.first() : QVariant();
}

} // namespace

QString toText(const QVariantMap &content)
{
    return QString::fromUtf8(json::exact(content));
}

QVariant toCell(const QVariant &value)
{
    if (!isContainer(value))
        return value;
    const QString text = toText({{VALUE, value}});
    return text.mid(5, text.size() - 6); // without {"v": and }
}

std::optional<QVariant> fromCell(const QVariant &edited, const QVariant &old)
{
    if (areAlike(edited, old))
        return edited;
    const bool isText = edited.userType() == QMetaType::QString;
    const QVariant parsed = isText ? parse(edited.toString()) : QVariant();
    if (old.isNull())
        return parsed.isValid() ? parsed : edited;
    if (isText && areAlike(parsed, old))
        return parsed;
    return std::nullopt;
}

std::optional<QVariantMap> fromText(const QString &text)
{
    const QJsonDocument json = QJsonDocument::fromJson(text.toUtf8());
    if (!json.isObject())
        return std::nullopt;
    return json.object().toVariantMap();
}

} // namespace bus::edit
