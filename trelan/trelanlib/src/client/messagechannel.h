#pragma once

#include "client/askingchannel.h"
#include "client/framelink.h"
#include "trelanmessage.h"

#include <QtCore/QTimer>

namespace bus
{

/// \brief The message channel of a client: shakes hands, acknowledges what comes, also what comes
/// again, and hands it on. Internal to the library; one thread.
class MessageChannel : public QObject, private FrameLink::Owner
{
    Q_OBJECT

public:
    explicit MessageChannel(const QString &clientName, QObject *parent = nullptr);

    void open(quint32 host, quint16 port, int patience, bool asksFeatures);
    /// Ends the connection without a signal.
    void close();
    QString localAddress() const;

Q_SIGNALS:
    void accepted(const bus::BusFeatures &features);
    void refused(const bus::TrelanError &error);
    void lost(const QString &reason);
    void arrived(const bus::TrelanMessage &message);

private:
    void onConnected(FrameLink &link) override;
    void onFrame(FrameLink &link, TrelanFrame::Kind kind, const QByteArray &payload) override;
    void onLost(FrameLink &link, const QString &reason) override;
    void breakOff(const QString &reason);
    void takeReply(const QByteArray &payload);
    void takeMessage(const TrelanMessage &message);

    const QString _clientName;
    FrameLink _link;
    QTimer _answer; // runs until the handshake is answered
    bool _asksFeatures = false;
    int _patience = 0;
};

} // namespace bus
