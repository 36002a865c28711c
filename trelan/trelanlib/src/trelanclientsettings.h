#pragma once

#include "trelanglobal.h"

#include <QtCore/QSharedDataPointer>
#include <QtCore/QString>

namespace bus
{

/// \brief Where a TrelanClient finds its bus, and how much may wait there. A plain value; a client
/// keeps a copy.
///
/// Every setter returns the settings, so that they can be written in one line:
///
/// \code
/// bus::TrelanClient client("thermometer", bus::TrelanClientSettings().setKeep(true));
/// \endcode
class TRELAN_EXPORT TrelanClientSettings
{
public:
    TrelanClientSettings();
    TrelanClientSettings(const TrelanClientSettings &other);
    TrelanClientSettings &operator=(const TrelanClientSettings &other);
    ~TrelanClientSettings();

    /// A numeric IPv4 address; "127.0.0.1" unless set. With anything else the client stays away,
    /// and its state says why.
    QString host() const;
    TrelanClientSettings &setHost(const QString &host);

    /// The ports of the bus; 43535 and 43537 unless set. 0 keeps the client away.
    quint16 queryPort() const;
    quint16 messagePort() const;
    TrelanClientSettings &setPorts(quint16 messagePort, quint16 queryPort);

    /// Publishes the newest value of each stored object of this client again when the bus was
    /// restarted and has lost it; false unless set. At most 10,000 objects and 16 MiB are kept for
    /// that, the oldest go first.
    bool keep() const;
    TrelanClientSettings &setKeep(bool keep);

    /// Operations that may be on their way at a time, and bytes of their frames; 10,000 and 16 MiB
    /// unless set, at least 1. One more ends as Refused, with code 512.
    int maxOperations() const;
    qint64 maxBytes() const;
    TrelanClientSettings &setLimits(int maxOperations, qint64 maxBytes);

    /// Milliseconds that a connection, an answer of the bus, and the rest of a frame that has begun
    /// may take; 10 s unless set, at least 1. The connection is given up then.
    int patience() const;
    TrelanClientSettings &setPatience(int milliseconds);

    /// The longest pause between two attempts to connect, in milliseconds; 5 s unless set. The
    /// first attempt is immediate, the next comes after about 50 ms, and each pause is about twice
    /// the one before.
    int maxPause() const;
    TrelanClientSettings &setMaxPause(int milliseconds);

private:
    class Data;
    QSharedDataPointer<Data> d;
};

} // namespace bus
