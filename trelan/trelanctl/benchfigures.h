#pragma once

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <vector>

/// What a measurement says. All functions are pure.
namespace trelanctl
{

/// How long each repetition of one measurement took.
struct BenchFigures
{
    QString what;
    int bytes = 0; ///< of the content, as JSON
    std::vector<qint64> nanoseconds;
};

/// The smallest time that at least \a percent of the times do not exceed; 0 without any time.
qint64 percentile(std::vector<qint64> nanoseconds, int percent);

/// Content whose compact JSON has \a bytes bytes. It consists of figures, since real contents
/// compress like figures.
QVariantMap benchContent(int bytes);

QStringList benchTable(const QList<BenchFigures> &figures);
QString benchJson(const BenchFigures &figures);

} // namespace trelanctl
