#pragma once

#include "trelanglobal.h"

#include "trelantransport.h"

#include <QtCore/QSharedDataPointer>

namespace bus
{

/// \brief Where a channel finds its bus, and how it reads, waits and writes there. A plain value.
///
/// The static settings (TrelanTransport, TrelanQueryHandler::setQueryHost() and the like) belong to
/// the process. A channel, a worker or a controller that is given settings of its own goes by these
/// instead, so that one process may talk to two buses, or to one bus in two ways:
///
/// \code
/// controller.setChannelSettings(bus::TrelanChannelSettings::ofProcess()
///                                   .setMode(bus::TrelanTransport::Prompt)
///                                   .setPorts(53537, 53535));
/// \endcode
class TRELAN_EXPORT TrelanChannelSettings
{
public:
    /// What a process has that has set nothing: a bus on this machine, at the default ports, with
    /// the transport that every peer has always been served with.
    TrelanChannelSettings();
    TrelanChannelSettings(const TrelanChannelSettings &other);
    TrelanChannelSettings &operator=(const TrelanChannelSettings &other);
    ~TrelanChannelSettings();

    /// What the static settings say now. The host is that of the query channel, where the hosts of
    /// both channels differ.
    static TrelanChannelSettings ofProcess();

    /// \name As in TrelanTransport
    /// @{
    TrelanTransport::Mode mode() const;
    TrelanChannelSettings &setMode(TrelanTransport::Mode mode);
    TrelanTransport::Coding coding() const;
    TrelanChannelSettings &setCoding(TrelanTransport::Coding coding);
    /// At least 1. What a payload may inflate to stays a setting of the process.
    qint64 maxPayload() const;
    TrelanChannelSettings &setMaxPayload(qint64 bytes);
    /// At least 1. For Prompt mode; in Paced mode 30 s count whatever is set.
    int patience() const;
    TrelanChannelSettings &setPatience(int milliseconds);
    /// @}

    /// IPv4 address of the bus, for both channels.
    quint32 host() const;
    TrelanChannelSettings &setHost(quint32 host);

    /// TCP ports of the bus; a channel whose port is 0 never opens.
    quint16 queryPort() const;
    quint16 messagePort() const;
    TrelanChannelSettings &setPorts(quint16 messagePort, quint16 queryPort);

    /// \brief When a worker tries again, in milliseconds: at once, then after about \a firstPause,
    /// then after about twice as long each time, up to \a maxPause. Chance varies each pause, so
    /// that many clients do not come back together.
    ///
    /// A connection that is lost within 10 s of its acceptance is an exception: it has probably
    /// been taken by another program of the same name. The worker waits 5 s then, and twice as long
    /// each further time, up to a minute, so that the two do not go on taking it from each other. 0
    /// and 0, unless set: the worker goes by the mode, see docs/threads.md. A channel without a
    /// worker never tries again by itself.
    TrelanChannelSettings &setPauses(int firstPause, int maxPause);
    int firstPause() const;
    int maxPause() const;

private:
    class Data;
    QSharedDataPointer<Data> d;
};

} // namespace bus
