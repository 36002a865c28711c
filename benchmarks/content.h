#pragma once

#include <QtCore/QJsonDocument>
#include <QtCore/QVariantMap>

/// What all measurements send: content as a monitoring program publishes it, the same on every
/// machine and in every run.
namespace content
{

/// Sizes of compact JSON that are measured: a reading, a status, a table.
constexpr int SMALL = 300;
constexpr int MEDIUM = 4 * 1024;
constexpr int LARGE = 64 * 1024;

inline int jsonSize(const QVariantMap &map)
{
    return QJsonDocument::fromVariant(map).toJson(QJsonDocument::Compact).size();
}

/// The reading number \a index: a name, a unit, two figures and a flag. The figures move like real
/// ones, so that they compress neither as noise nor as a constant.
inline QVariantMap reading(int index)
{
    static const QStringList UNITS {QStringLiteral("percent"), QStringLiteral("bytes"),
                                    QStringLiteral("celsius"), QStringLiteral("packets")};
    const quint32 noise = (quint32(index) * 2654435761U) >> 16;
    return {
        {QStringLiteral("id"), QStringLiteral("net.eth%1.queue%2").arg(index % 7).arg(index)},
        {QStringLiteral("unit"), UNITS.at(index % UNITS.size())},
        {QStringLiteral("value"), double(noise % 10000) / 100.0},
        {QStringLiteral("at"), 1700000000000LL + index * 250 + int(noise % 16)},
        {QStringLiteral("ok"), noise % 11 != 0},
    };
}

/// Content whose compact JSON has \a size bytes, for any size from 150 on.
inline QVariantMap ofSize(int size)
{
    QVariantMap map {
        {QStringLiteral("host"), QStringLiteral("box-17")},
        {QStringLiteral("kernel"), QStringLiteral("6.1.0-18-amd64")},
        {QStringLiteral("note"), QString()},
        {QStringLiteral("readings"), QVariantList()},
    };
    int left = size - jsonSize(map);
    QVariantList readings;
    for (int next = 0;; ++next) {
        const QVariantMap entry = reading(next);
        const int needed = jsonSize(entry) + (readings.isEmpty() ? 0 : 1); // and a comma
        if (needed > left)
            break;
        readings.append(entry);
        left -= needed;
    }
    map[QStringLiteral("readings")] = readings;
    const QString words = QStringLiteral("maintenance window on the second tuesday of the month; ");
    map[QStringLiteral("note")] = words.repeated(left / words.size() + 1).left(left);
    return map;
}

} // namespace content
