#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace trelanctl
{

/// What a stream of frames holds: lines to print for people who debug, and each fault found.
struct FrameDump
{
    QStringList lines;
    QStringList errors;
};

/// \brief Takes apart the frames in \a stream. Pure.
///
/// A frame that cannot be decoded is an error, and the next frame is still read. A line that is no
/// header is the end, since no frame can be found behind it. White space behind the last frame,
/// which editors leave there, is no error.
FrameDump dumpFrames(QByteArray stream, bool asJson);

} // namespace trelanctl
