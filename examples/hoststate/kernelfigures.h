#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// Pure functions that make figures of the kernel's files. A line that is not as it should be gives
/// no figure, and never a wrong one.
namespace hoststate
{

/// Reads /proc/loadavg into "one", "five", "fifteen", "running" and "tasks". Empty if \a text is
/// not readable.
QVariantMap parseLoad(const QByteArray &text);

/// Reads /proc/meminfo into "total", "free", "available", "buffers", "cached", "swapTotal" and
/// "swapFree", in KiB as the kernel counts. A figure that the kernel does not tell is left out.
QVariantMap parseMemory(const QByteArray &text);

/// Reads /proc/net/dev into a map for each interface, with its counters since it came up:
/// "rxBytes", "rxPackets", "rxErrors" and "rxDropped", and four that begin with "tx".
QVariantMap parseNetwork(const QByteArray &text);

/// A file system that is mounted.
struct Mount
{
    QString device;
    QByteArray path; ///< as the kernel has it; it need not be UTF-8
    QString type;
};

/// Reads /proc/self/mounts. Pseudo file systems are left out, and so are file systems of the
/// network, which may block for ever when asked for their size. Each device is there once, at its
/// shortest path.
QList<Mount> parseMounts(const QByteArray &text);

/// \brief \a text as one segment of an object name.
///
/// Dots, control characters and white space at either end become "_". A text that can be no segment
/// becomes "_" as a whole: an empty one, "+" and "*".
QString segment(const QString &text);

} // namespace hoststate
