#include "benchfigures.h"

#include "table.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <algorithm>
#include <numeric>

namespace trelanctl
{

namespace
{

const double NS_PER_MS = 1e6;
const double NS_PER_S = 1e9;

double perSecond(const BenchFigures &figures)
{
    const qint64 sum =
        std::accumulate(figures.nanoseconds.begin(), figures.nanoseconds.end(), qint64(0));
    return sum == 0 ? 0 : double(figures.nanoseconds.size()) * NS_PER_S / double(sum);
}

double milliseconds(const BenchFigures &figures, int percent)
{
    return double(percentile(figures.nanoseconds, percent)) / NS_PER_MS;
}

} // namespace

qint64 percentile(std::vector<qint64> nanoseconds, int percent)
{
    if (nanoseconds.empty())
        return 0;
    std::sort(nanoseconds.begin(), nanoseconds.end());
    const size_t rank = (nanoseconds.size() * size_t(percent) + 99) / 100;
    return nanoseconds[std::max<size_t>(rank, 1) - 1];
}

QVariantMap benchContent(int bytes)
{
    const int frame = int(qstrlen(R"({"f":""})"));
    QByteArray text;
    for (quint32 index = 0; text.size() < bytes; ++index)
        text += QByteArray::number(double((index * 2654435761U) >> 16) / 100.0, 'f', 2) + ' ';
    return {{QStringLiteral("f"), QString::fromLatin1(text.left(qMax(0, bytes - frame)))}};
}

QStringList benchTable(const QList<BenchFigures> &figures)
{
    QList<QStringList> rows = {{QStringLiteral("WHAT"), QStringLiteral("BYTES"),
                                QStringLiteral("COUNT"), QStringLiteral("PER SECOND"),
                                QStringLiteral("P50 MS"), QStringLiteral("P99 MS")}};
    for (const BenchFigures &figure : figures) {
        rows.append({figure.what, QString::number(figure.bytes),
                     QString::number(figure.nanoseconds.size()),
                     QString::number(perSecond(figure), 'f', 0),
                     QString::number(milliseconds(figure, 50), 'f', 3),
                     QString::number(milliseconds(figure, 99), 'f', 3)});
    }
    return table(rows, 0);
}

QString benchJson(const BenchFigures &figures)
{
    const QJsonObject json = {{QStringLiteral("what"), figures.what},
                              {QStringLiteral("bytes"), figures.bytes},
                              {QStringLiteral("count"), int(figures.nanoseconds.size())},
                              {QStringLiteral("perSecond"), perSecond(figures)},
                              {QStringLiteral("p50Ms"), milliseconds(figures, 50)},
                              {QStringLiteral("p99Ms"), milliseconds(figures, 99)}};
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

} // namespace trelanctl
