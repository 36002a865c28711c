#pragma once

#include <QtCore/QByteArray>

/// zlib streams of blocks that are not compressed, as the Light coding sends them: zlib itself
/// takes several times as long for them. Internal to the library; thread-safe.
namespace bus::stored
{

/// zlib's adler32() over \a bytes.
quint32 sum(const QByteArray &bytes);

/// What \a bytes, in Qt's form, inflates to goes into \a inflated, with room behind it in which
/// JSON is read. False if that is above \a limit or not what it declares, if anything is
/// compressed, or if it is damaged: zlib knows what becomes of it then.
bool read(const QByteArray &bytes, qint64 limit, QByteArray &inflated);

} // namespace bus::stored
