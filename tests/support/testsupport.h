#pragma once

#include <QtTest/QtTest>

/// The content of a file in tests/support/golden, or of any file with an absolute path.
inline QByteArray testData(const QString &path)
{
    QFile file(QDir(QStringLiteral(TRELAN_GOLDEN_DIR)).filePath(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Adds a test row for each JSON object of an array, in a column "row"; "name" names the row.
inline void addTestRows(const QString &path)
{
    QTest::addColumn<QJsonObject>("row");
    const QJsonArray rows = QJsonDocument::fromJson(testData(path)).array();
    QVERIFY2(!rows.isEmpty(), qPrintable(path));
    for (const QJsonValue row : rows)
        QTest::newRow(qPrintable(row[u"name"].toString())) << row.toObject();
}

/// Whether the id of \a value is the digest of \a head, the time when it is made, and \a tail.
template <typename Value>
bool makesUidOf(const Value &value, const QByteArray &head, const QByteArray &tail)
{
    qint64 time = QDateTime::currentMSecsSinceEpoch();
    const QByteArray uid = QByteArray::fromBase64(value.genUid().toLatin1());
    QCryptographicHash hash(QCryptographicHash::Sha1);
    for (; hash.result() != uid && time <= QDateTime::currentMSecsSinceEpoch(); ++time) {
        hash.reset();
        hash.addData(head + QByteArray::number(time) + tail);
    }
    return hash.result() == uid && value.genUid().size() == 28;
}

/// Checks that \a value has the wire form \a json and is read back from it; and that reading
/// notices each entry: a value read without it has to differ.
template <typename Value>
void checkWireForm(const Value &value, const QByteArray &json)
{
    QCOMPARE(QJsonDocument::fromVariant(value.toVariantMap()).toJson(QJsonDocument::Compact), json);
    const QVariantMap map = QJsonDocument::fromJson(json).object().toVariantMap();
    QCOMPARE(Value::fromVariantMap(map), value);
    QCOMPARE(Value::fromVariantMap(map).dt().timeSpec(), Qt::LocalTime);
    for (const QString &key : map.keys()) {
        QVariantMap without = map;
        without.remove(key);
        QVERIFY2(Value::fromVariantMap(without) != value, qPrintable(key));
    }
    Value empty;
    empty.setOptions({});
    empty.setDt(QDateTime::fromMSecsSinceEpoch(0));
    QCOMPARE(Value::fromVariantMap({}), empty);
}
