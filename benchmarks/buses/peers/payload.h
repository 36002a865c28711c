#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QVariantMap>

/// How a program of Qt sends a map over a bus that knows only bytes.
class Payload
{
public:
    enum Form {
        Json,      ///< compact, by QJsonDocument: what programs in other languages can read
        DataStream ///< by QDataStream: for programs of Qt alone
    };

    explicit Payload(Form form)
        : _form(form)
    {}

    QByteArray pack(const QVariantMap &content) const;
    QVariantMap unpack(const QByteArray &bytes) const;

private:
    const Form _form;
};
