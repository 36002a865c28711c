#include "values/wirevalue.h"

#include <nettle/sha1.h>

namespace bus::value
{

/// Made by nettle: Qt's QCryptographicHash takes three times as long.
QString digest(const QByteArray &first, const QByteArray &second)
{
    sha1_ctx context {};
    sha1_init(&context);
    for (const QByteArray &bytes : {first, second}) {
        sha1_update(&context, size_t(bytes.size()),
                    reinterpret_cast<const uint8_t *>(bytes.constData()));
    }
    QByteArray hash(SHA1_DIGEST_SIZE, Qt::Uninitialized);
    sha1_digest(&context, size_t(hash.size()), reinterpret_cast<uint8_t *>(hash.data()));
    return QString::fromLatin1(hash.toBase64());
}

QString nowText()
{
    return QString::number(QDateTime::currentMSecsSinceEpoch());
}

QString timeToWire(const TrelanTimestamp &time)
{
    return QString::number(time.toMSecsSinceEpoch());
}

TrelanTimestamp timeFromWire(const QVariant &wire)
{
    return TrelanTimestamp(wire.toString().toLongLong(nullptr, 10));
}

} // namespace bus::value
