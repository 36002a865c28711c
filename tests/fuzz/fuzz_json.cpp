#include "qtleaks.h"

#include <jsonreader.h>
#include <jsonwriter.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <cstring>

using namespace bus;

namespace
{

/// Compares with types, since QVariant takes 1 and 1.0, and doubles that are nearly equal, for
/// equal.
bool same(const QVariant &a, const QVariant &b)
{
    if (a.userType() != b.userType())
        return false;
    if (a.userType() == QMetaType::Double) {
        const double first = a.toDouble(), second = b.toDouble();
        return memcmp(&first, &second, sizeof first) == 0;
    }
    if (a.userType() == QMetaType::QVariantList) {
        const QVariantList first = a.toList(), second = b.toList();
        return std::equal(first.begin(), first.end(), second.begin(), second.end(), same);
    }
    if (a.userType() != QMetaType::QVariantMap)
        return a == b;
    const QVariantMap first = a.toMap(), second = b.toMap();
    return first.keys() == second.keys() &&
           std::equal(first.begin(), first.end(), second.begin(), same);
}

bool writtenAsByQt(const QVariantMap &map)
{
    const QJsonDocument document = QJsonDocument::fromVariant(map);
    return json::indented(map) == document.toJson() &&
           json::compact(map) == document.toJson(QJsonDocument::Compact);
}

/// Makes texts and numbers that no JSON text could have brought.
QVariantMap anything(const QByteArray &bytes)
{
    QString text(bytes.size() / 2, Qt::Uninitialized);
    memcpy(text.data(), bytes.constData(), size_t(text.size()) * 2);
    QVariantList numbers;
    for (int at = 0; at + 8 <= bytes.size(); at += 8) {
        double number = 0;
        memcpy(&number, bytes.constData() + at, sizeof number);
        numbers << number << float(number) << qint64(number < 1e18 && number > -1e18 ? number : 0)
                << double(qint32(at)) / 100;
    }
    return {{text, text.split(QLatin1Char(' '))}, {QString(), numbers}};
}

} // namespace

/// The input is a JSON text to read, or else texts and numbers to write.
extern "C" int LLVMFuzzerTestOneInput(const quint8 *data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char *>(data), int(size));
    QJsonParseError error {};
    const QVariantMap wanted = QJsonDocument::fromJson(text, &error).object().toVariantMap();
    const bool isJson = error.error == QJsonParseError::NoError;

    QVariantMap read;
    QString errorText;
    if (json::read(text, read, &errorText) != isJson || !same(read, wanted) ||
        errorText != (isJson ? QString() : error.errorString()))
        abort();
    if (!writtenAsByQt(isJson ? wanted : anything(text)))
        abort();
    return 0;
}
