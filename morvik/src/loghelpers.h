#pragma once

#include "morvikglobal.h"

#include <QtCore/QByteArray>
#include <QtCore/QDebug>
#include <QtCore/QStringList>
#include <QtCore/QVariant>

/// Helpers for log lines. Each makes a small value that goes into a QDebug stream and leaves the
/// stream's settings (quotes, spaces) as they were.
///
/// Data from outside may be huge: a rendering is cut at MAX_LOG_BYTES, and says by how much. In a
/// stream in space mode a value has one blank before and after it, as any value has.
///
/// \code
/// qWarning().noquote().nospace() << error.errorString() << morvik::logtab
///                                << morvik::logbinary(bytes, "UTF-8");
/// \endcode
namespace morvik
{

/// Longest rendering of one value, in bytes (UTF-8), without the note of what was cut.
constexpr int MAX_LOG_BYTES = 64 * 1024;

struct LogTab
{};
/// One tab, without quotes, and without blanks around it in any mode of the stream.
constexpr LogTab logtab {};

struct LogBinary
{
    QByteArray bytes;
    QByteArray codec;
};
/// Bytes as text in \a codec (a name QTextCodec knows); an unknown codec renders them in hex.
MORVIK_EXPORT LogBinary logbinary(const QByteArray &bytes, const QByteArray &codec);

struct LogList
{
    QStringList items;
};
/// A list of texts, each in quotes, in one log entry: ("a", "b"). Quotes, backslashes and
/// characters that cannot be printed are escaped, so that a line break in the data starts no line
/// of the log.
MORVIK_EXPORT LogList loglist(const QStringList &items);

struct LogVariant
{
    QVariant value;
};
/// A variant as compact JSON, which keeps maps and lists readable on one line. A value without a
/// form in JSON, such as an invalid variant, is rendered as Qt does.
MORVIK_EXPORT LogVariant logvariant(const QVariant &value);

MORVIK_EXPORT QDebug operator<<(QDebug debug, const LogTab &tab);
MORVIK_EXPORT QDebug operator<<(QDebug debug, const LogBinary &binary);
MORVIK_EXPORT QDebug operator<<(QDebug debug, const LogList &list);
MORVIK_EXPORT QDebug operator<<(QDebug debug, const LogVariant &variant);

} // namespace morvik
