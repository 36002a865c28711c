#pragma once

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <vector>

/// What a measurement says. Pure functions.
namespace trelanctl
{

/// How long each of a number of repetitions took, one after the other.
struct BenchFigures
{
    QString what;
    int bytes = 0; ///< of the content, as JSON
    std::vector<qint64> nanoseconds;
};

/// The smallest time that \a percent of them, or more, do not exceed; 0 if there are none.
qint64 percentile(std::vector<qint64> nanoseconds, int percent);

/// Content whose compact JSON has \a bytes bytes; figures, which compress as figures do.
QVariantMap benchContent(int bytes);

QStringList benchTable(const QList<BenchFigures> &figures);
QString benchJson(const BenchFigures &figures);

} // namespace trelanctl
