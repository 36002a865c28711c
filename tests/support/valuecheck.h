#pragma once

#include <QtCore/QCryptographicHash>
#include <QtTest/QtTest>

/// Whether \a uid is the digest of \a head, a time from \a since on until now, and \a tail.
inline bool isUidOf(const QString &uid, const QByteArray &head, const QByteArray &tail,
                    qint64 since)
{
    const auto digest = [&](qint64 ms) {
        return QCryptographicHash::hash(head + QByteArray::number(ms) + tail,
                                        QCryptographicHash::Sha1);
    };
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    while (since <= now && uid.toLatin1() != digest(since).toBase64())
        ++since;
    return since <= now;
}

/// Checks \a json, the wire form of \a value, which is read back through real JSON; and that an
/// entry that is missing leaves an empty value behind, which a comparison notices.
template <typename Value>
void checkWireForm(const Value &value, const QByteArray &json)
{
    const auto compact = QJsonDocument::Compact;
    QCOMPARE(QJsonDocument::fromVariant(value.toVariantMap()).toJson(compact), json);
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
