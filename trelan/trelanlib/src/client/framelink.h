#pragma once

#include "channel/promptinbox.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QString>
#include <QtCore/QTimer>

class QTcpSocket;

namespace bus
{

/// \brief One connection to the bus, made and used without waiting. Internal to the library.
///
/// It knows frames and no operations. One thread, whose event loop has to run. Its owner may close
/// it from any of its functions, and may open it again from all but those.
class FrameLink : public QObject, private PromptInbox::Owner
{
    Q_OBJECT

public:
    class Owner
    {
    public:
        virtual ~Owner() = default;
        /// The connection is made.
        virtual void onConnected(FrameLink &link) = 0;
        virtual void onFrame(FrameLink &link, TrelanFrame::Kind kind,
                             const QByteArray &payload) = 0;
        /// The connection could not be made or has ended; not said of close().
        virtual void onLost(FrameLink &link, const QString &reason) = 0;
    };

    explicit FrameLink(Owner &owner, QObject *parent = nullptr);
    ~FrameLink() override;

    /// Connects, which may take so many milliseconds.
    void open(quint32 host, quint16 port, int patience);
    void close();
    bool isConnected() const;

    void send(const QByteArray &frame);
    /// Sends a frame together with those for which frames have come together.
    void sendTogether(const QByteArray &frame);

    /// Address and port of this side; of the last connection if there is none.
    QString localAddress() const;

private:
    void onFrame(TrelanFrame::Kind kind, const QByteArray &payload) override;
    void onBroken(const QString &reason) override;
    void onSocketConnected();
    void lose(const QString &reason);

    FrameLink::Owner &_owner;
    QPointer<QTcpSocket> _socket;
    PromptInbox *_inbox;
    QTimer _connecting; // runs until the connection is made
    QString _localAddress;
};

} // namespace bus
