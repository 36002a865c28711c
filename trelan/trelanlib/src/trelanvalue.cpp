#include "trelanvalue.h"

#include <QtCore/QCryptographicHash>

namespace bus::value
{

QString digest(const QByteArray &bytes)
{
    const QByteArray hash = QCryptographicHash::hash(bytes, QCryptographicHash::Sha1);
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
