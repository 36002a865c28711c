#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace trelanctl
{

/// What a stream of frames holds, for people who debug: lines to print, and each fault found.
struct FrameDump
{
    QStringList lines;
    QStringList errors;
};

/// \brief Takes apart the frames in \a stream. Pure.
///
/// A frame that cannot be decoded is an error, and the next one is looked at; after a line that
/// is none, nothing more can be found. White space behind the last frame, which editors leave, is
/// not counted as the beginning of another.
FrameDump dumpFrames(QByteArray stream, bool asJson);

} // namespace trelanctl
