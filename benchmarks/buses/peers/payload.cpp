#include "payload.h"

#include <QtCore/QDataStream>
#include <QtCore/QIODevice>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

QByteArray Payload::pack(const QVariantMap &content) const
{
    if (_form == Json)
        return QJsonDocument::fromVariant(content).toJson(QJsonDocument::Compact);
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << content;
    return bytes;
}

QVariantMap Payload::unpack(const QByteArray &bytes) const
{
    if (_form == Json)
        return QJsonDocument::fromJson(bytes).object().toVariantMap();
    QVariantMap content;
    QDataStream stream(bytes);
    stream >> content;
    return content;
}
