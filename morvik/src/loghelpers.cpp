#include "loghelpers.h"

#include <QtCore/QDebugStateSaver>
#include <QtCore/QJsonArray>
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
    QTextCodec *codec = QTextCodec::codecForName(binary.codec);
    const QByteArray shown = binary.bytes.left(codec ? MAX_LOG_BYTES : MAX_LOG_BYTES / 2);
    const QString text = codec ? codec->toUnicode(shown) : QString::fromLatin1(shown.toHex());
    return text + cutNote(binary.bytes.size() - shown.size());
}

/// The UTF-8 bytes that a character takes. Of a surrogate pair, which takes four, the high one
/// counts for both.
int utf8Size(QChar c)
{
    if (c.unicode() < 0x80)
        return 1;
    if (c.unicode() < 0x800)
        return 2;
    if (c.isSurrogate())
        return c.isHighSurrogate() ? 4 : 0;
    return 3;
}

/// One character of a text in quotes, escaped: a line break in foreign data must not look like the
/// start of a log line.
QString escaped(QChar c)
{
    if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
        return QLatin1Char('\\') + QString(c);
    if (c == QLatin1Char('\n'))
        return QStringLiteral("\\n");
    if (c == QLatin1Char('\t'))
        return QStringLiteral("\\t");
    if (c.isPrint() || c.isSurrogate())
        return c;
    return QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
}

/// A rendering under construction that stops at the limit and only counts from there on.
class CutText
{
public:
    /// Appends punctuation, which is not counted as cut: it is not part of the data.
    void appendMark(const QString &mark)
    {
        if (!isFull())
            append(mark);
    }

    void appendData(const QString &data)
    {
        for (const QChar c : data) {
            if (isFull() || !append(escaped(c)))
                _cut += utf8Size(c);
        }
    }

    bool isFull() const { return _full; }
    QString text() const { return _text + cutNote(_cut); }

private:
    bool append(const QString &piece)
    {
        int size = 0;
        for (const QChar c : piece)
            size += utf8Size(c);
        _full = _size + size > MAX_LOG_BYTES;
        if (_full)
            return false;
        _text += piece;
        _size += size;
        return true;
    }

    QString _text;
    qint64 _size = 0;
    qint64 _cut = 0;
    bool _full = false;
};

QString renderList(const LogList &list)
{
    const QString quote(QLatin1Char('"'));
    CutText text;
    QString before = QStringLiteral("(");
    for (const QString &item : list.items) {
        text.appendMark(before + quote);
        text.appendData(item);
        text.appendMark(quote);
        before = QStringLiteral(", ");
    }
    text.appendMark(list.items.isEmpty() ? QStringLiteral("()") : QStringLiteral(")"));
    return text.text();
}

QString renderVariant(const LogVariant &variant)
{
    const QJsonValue json = QJsonValue::fromVariant(variant.value);
    if (!variant.value.isValid() ||
        (json.isNull() && variant.value.userType() >= QMetaType::User)) {
        // JSON has no form for the value; Qt at least names its type.
        QString text;
        QDebug(&text).nospace() << variant.value;
        return text;
    }
    // A document is an object or an array. A scalar goes into an array, whose brackets are left
    // out.
    const QByteArray text = QJsonDocument(QJsonArray {json}).toJson(QJsonDocument::Compact);
    const int size = text.size() - 2;
    int shown = qMin(size, MAX_LOG_BYTES);
    while (shown < size && shown > 0 && (quint8(text.at(1 + shown)) & 0xC0) == 0x80)
        --shown; // the cut must not be in the middle of a character
    return QString::fromUtf8(text.constData() + 1, shown) + cutNote(size - shown);
}

/// Writes \a text, followed by a blank if the stream is in space mode, and leaves the stream's
/// settings as they were.
void writeValue(QDebug &debug, const QString &text)
{
    const QDebugStateSaver saver(debug);
    debug.nospace().noquote() << text;
}

/// Takes away the blank that a stream in space mode has written after the last value.
/// QDebugStateSaver does so when it goes from space mode back to the mode without spaces.
void removeLastBlank(QDebug &debug)
{
    debug.setAutoInsertSpaces(false);
    const QDebugStateSaver saver(debug);
    debug.setAutoInsertSpaces(true);
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
    const bool spaces = debug.autoInsertSpaces();
    if (spaces)
        removeLastBlank(debug);
    debug.setAutoInsertSpaces(false);
    debug << '\t';
    debug.setAutoInsertSpaces(spaces);
    return debug;
}

QDebug operator<<(QDebug debug, const LogBinary &binary)
{
    writeValue(debug, renderBinary(binary));
    return debug;
}

QDebug operator<<(QDebug debug, const LogList &list)
{
    writeValue(debug, renderList(list));
    return debug;
}

QDebug operator<<(QDebug debug, const LogVariant &variant)
{
    writeValue(debug, renderVariant(variant));
    return debug;
}

} // namespace morvik
