#pragma once

#include <QtCore/QAbstractItemModel>
#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QStringList>

namespace examples
{

/// Called with --once, the program prints the first rows that \a model has, and ends.
inline void endAfterFirstRows(const QAbstractItemModel &model)
{
    if (!QCoreApplication::arguments().contains("--once"))
        return;
    QObject::connect(&model, &QAbstractItemModel::rowsInserted, &model, [&model] {
        for (int row = 0; row < model.rowCount(); ++row) {
            QStringList cells;
            for (int column = 0; column < model.columnCount(); ++column)
                cells << model.index(row, column).data().toString();
            qInfo().noquote() << cells.join(" | ");
        }
        QCoreApplication::quit();
    });
}

} // namespace examples
