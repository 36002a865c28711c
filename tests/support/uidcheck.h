#pragma once

#include <QtCore/QCryptographicHash>
#include <QtCore/QDateTime>

/// Whether \a uid is the digest of \a head, a time from \a since on until now, and \a tail.
inline bool isUidOf(const QString &uid, const QByteArray &head, const QByteArray &tail,
                    qint64 since)
{
    for (qint64 ms = since; ms <= QDateTime::currentMSecsSinceEpoch(); ++ms) {
        QCryptographicHash hash(QCryptographicHash::Sha1);
        for (const QByteArray &part : {head, QByteArray::number(ms), tail})
            hash.addData(part);
        if (uid.toLatin1() == hash.result().toBase64())
            return true;
    }
    return false;
}
