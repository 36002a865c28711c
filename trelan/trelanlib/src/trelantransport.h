#pragma once

#include "trelanglobal.h"

#include <QtCore/QtGlobal>

namespace bus
{

/// \brief How the channels of this process read, wait and write.
///
/// The protocol does not depend on these settings: a client and a bus that are set differently
/// understand each other. The defaults are what every peer has always been served with. A new
/// application should choose Prompt and Light.
///
/// Threads: the settings belong to the process, and are to be made before the first channel opens
/// or the first bus starts. A channel keeps the mode, the coding and the largest payload that it
/// was opened with.
///
/// \code
/// bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);
/// bus::TrelanTransport::setCoding(bus::TrelanTransport::Light);
/// \endcode
class TRELAN_EXPORT TrelanTransport
{
public:
    enum Mode {
        /// A pause of 10 ms after every read attempt, and one of up to 100 ms after a payload
        /// that was delivered. An answered request takes 10 ms, a delivery 110 ms.
        Paced,
        /// No pauses: a channel takes what has arrived at once, in whatever pieces it comes. It
        /// closes a connection on which an answer was late or a frame was none, so that a late
        /// answer is never taken for the next one.
        Prompt
    };
    enum Coding {
        /// Indented JSON, compressed as well as zlib does unless told otherwise. A whole number
        /// above 2^53, such as a time in nanoseconds, changes into the double next to it, as with
        /// QJsonDocument.
        Classic,
        /// Compact JSON, stored up to 1 MiB and compressed fast above, in a frame of the same form:
        /// whoever reads Classic reads Light. Whole numbers are written exactly.
        Light
    };

    TrelanTransport() = delete;

    /// Paced unless set.
    static Mode mode();
    static void setMode(Mode mode);

    /// The coding of what is written: Classic unless set. Both are always understood.
    static Coding coding();
    static void setCoding(Coding coding);

    /// \name Limits of Prompt mode
    /// Past a size or a time a connection is closed.
    /// @{

    /// Largest payload of a frame, in bytes on the wire; 16 MiB unless set, at least 1.
    static qint64 maxPayload();
    static void setMaxPayload(qint64 bytes);

    /// What a payload may inflate to; 256 MiB unless set. The limit of TrelanFrame, in every mode;
    /// what exceeds it is dropped, and closes a query channel.
    static qint64 maxInflatedSize();
    static void setMaxInflatedSize(qint64 bytes);

    /// Milliseconds that a connection, an answer, and the rest of a frame that has begun may take;
    /// 30 s unless set, at least 1.
    static int patience();
    static void setPatience(int milliseconds);
    /// @}
};

} // namespace bus
