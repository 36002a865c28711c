#pragma once

#include <QtTest/QtTest>

/// A file of tests/support/golden, or of anywhere else with an absolute path.
inline QByteArray testData(const QString &path)
{
    QFile file(QDir(QStringLiteral(TRELAN_GOLDEN_DIR)).filePath(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Test rows, in a column "row", out of an array of JSON objects that have a "name".
inline void addTestRows(const QString &path)
{
    QTest::addColumn<QJsonObject>("row");
    const QJsonArray rows = QJsonDocument::fromJson(testData(path)).array();
    QVERIFY2(!rows.isEmpty(), qPrintable(path));
    for (const QJsonValue row : rows)
        QTest::newRow(qPrintable(row[u"name"].toString())) << row.toObject();
}
