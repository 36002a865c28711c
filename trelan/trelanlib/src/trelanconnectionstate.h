#pragma once

#include "trelanglobal.h"

#include <QtCore/QDateTime>
#include <QtCore/QMetaType>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace bus
{

/// \brief Whether a client, a controller or a worker has its bus, and if not, why. A plain value,
/// fit for a status bar.
class TRELAN_EXPORT TrelanConnectionState
{
    Q_GADGET
    Q_PROPERTY(Status status READ status)
    Q_PROPERTY(Reason reason READ reason)
    Q_PROPERTY(QString description READ description)
    Q_PROPERTY(QDateTime since READ since)
    Q_PROPERTY(QStringList lacking READ lacking)

public:
    enum Status {
        Connecting, ///< the first attempt is under way
        Connected,  ///< the bus has accepted the client, on each channel that it has
        Away        ///< there is no bus for now; attempts go on
    };
    Q_ENUM(Status)

    enum Reason {
        NoReason,  ///< connected, or not tried yet
        NoBus,     ///< nobody listens there, or the connection was lost
        Refused,   ///< the bus has refused the client: see description()
        NameTaken, ///< another program has connected under the client's name
        OtherPort  ///< the port is that of the bus's other channel
    };
    Q_ENUM(Reason)

    /// Connecting, since now.
    TrelanConnectionState();
    static TrelanConnectionState connected(const QStringList &lacking = {});
    static TrelanConnectionState away(Reason reason, const QString &description);

    /// Whether the text and the time aside both say one thing.
    bool isLike(const TrelanConnectionState &other) const;

    Status status() const;
    Reason reason() const;
    bool isConnected() const;

    /// For people: what is wrong, with names, addresses and ports; empty while connected.
    QString description() const;

    /// Since when the status is what it is.
    QDateTime since() const;

    /// The additions to the protocol that this bus does not have, and that the client does without
    /// as well as it can; see the table of features in docs/protocol.md. Empty unless connected.
    QStringList lacking() const;

    /// For people, in one line: "connected", "connecting" or "away since 12:00:01: no bus at ...".
    QString toString() const;

private:
    TrelanConnectionState(Status status, Reason reason, const QString &description,
                          const QStringList &lacking);

    Status _status = Connecting;
    Reason _reason = NoReason;
    QString _description;
    QDateTime _since;
    QStringList _lacking;
};

} // namespace bus

Q_DECLARE_METATYPE(bus::TrelanConnectionState)
