#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// Text of the kernel's files in, figures out: pure functions. A line that is not as it should be
/// gives no figure, and never a wrong one.
namespace hoststate
{

/// /proc/loadavg: "one", "five", "fifteen", "running", "tasks"; empty if it is not readable.
QVariantMap parseLoad(const QByteArray &text);

/// /proc/meminfo, in KiB as the kernel counts: "total", "free", "available", "buffers", "cached",
/// "swapTotal", "swapFree"; a kernel that does not tell one of them leaves it out.
QVariantMap parseMemory(const QByteArray &text);

/// /proc/net/dev: for each interface a map of counters since it came up, "rxBytes", "rxPackets",
/// "rxErrors", "rxDropped" and the same with "tx".
QVariantMap parseNetwork(const QByteArray &text);

/// A file system that holds files on something.
struct Mount
{
    QString device;
    QByteArray path; ///< as the kernel has it; it need not be UTF-8
    QString type;
};

/// /proc/self/mounts: without pseudo file systems, without those of the network (asking them for
/// their size may block for ever), and each device once, at its shortest path.
QList<Mount> parseMounts(const QByteArray &text);

/// \brief \a text as one segment of an object name.
///
/// Dots separate segments and become "_", as do control characters, white space at either end, and
/// what would be no segment: an empty text, "+" and "*".
QString segment(const QString &text);

} // namespace hoststate
