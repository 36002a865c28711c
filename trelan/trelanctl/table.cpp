#include "table.h"

#include "terminaltext.h"

namespace trelanctl
{

namespace
{

const int MAX_COLUMN = 60;
const int MIN_LAST = 12;
const QString GAP = QStringLiteral("  ");

void widen(const QStringList &cells, QVector<int> &widths)
{
    widths.resize(cells.size() - 1); // the last one needs none
    for (int column = 0; column < widths.size(); ++column)
        widths[column] = qMax(widths[column], qMin(terminal::width(cells[column]), MAX_COLUMN));
}

} // namespace

QString tableLine(const QStringList &cells, QVector<int> &widths, int width)
{
    widen(cells, widths);
    QString line;
    for (int column = 0; column < widths.size(); ++column)
        line += terminal::padded(cells[column], widths[column]) + GAP;
    const int room = qMax(MIN_LAST, width - terminal::width(line));
    return line + (width > 0 ? terminal::cut(cells.last(), room) : cells.last());
}

QStringList table(const QList<QStringList> &rows, int width)
{
    QVector<int> widths;
    for (const QStringList &row : rows)
        widen(row, widths);
    QStringList lines;
    for (const QStringList &row : rows)
        lines.append(tableLine(row, widths, width));
    return lines;
}

} // namespace trelanctl
