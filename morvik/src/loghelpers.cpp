#include "loghelpers.h"

#include <QtCore/QDebugStateSaver>
#include <QtCore/QJsonDocument>
#include <QtCore/QTextCodec>

namespace morvik
{

namespace
{

QString cutNote(qint64 cut)
{
    return cut > 0 ? QStringLiteral(" ... (%1 bytes more)").arg(cut) : QString();
}

QString renderBinary(const LogBinary &binary)
{
    const QByteArray shown = binary.bytes.left(MAX_LOG_BYTES);
    QTextCodec *codec = QTextCodec::codecForName(binary.codec);
    const QString text = codec ? codec->toUnicode(shown) : QString::fromLatin1(shown.toHex());
    return text + cutNote(binary.bytes.size() - shown.size());
}

} // namespace

LogBinary logbinary(const QByteArray &bytes, const QByteArray &codec)
{
    return {bytes, codec};
}

LogList loglist(const QStringList &items)
{
    return {items};
}

LogVariant logvariant(const QVariant &value)
{
    return {value};
}

QDebug operator<<(QDebug debug, const LogTab &)
{
    const QDebugStateSaver saver(debug);
    debug.nospace().noquote() << '\t';
    return debug;
}

QDebug operator<<(QDebug debug, const LogBinary &binary)
{
    const QDebugStateSaver saver(debug);
    debug.nospace().noquote() << renderBinary(binary);
    return debug;
}

QDebug operator<<(QDebug debug, const LogList &list)
{
    Q_UNUSED(list)
    return debug;
}

QDebug operator<<(QDebug debug, const LogVariant &variant)
{
    Q_UNUSED(variant)
    return debug;
}

} // namespace morvik
