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

/// Whether an id of \a value is the digest of \a head, the time when it is made, and \a tail.
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

/// Checks \a json, the wire form of \a value, which is read back through real JSON; and that an
/// entry that is missing leaves an empty value behind, which a comparison notices.
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
