#pragma once

#include "busaccess.h"

#include <trelanmsgworker.h>
#include <trelanqueryhandler.h>
#include <trelanqueryworker.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QSemaphore>
#include <QtCore/QTimer>

#include <memory>

/// The library's workers, with what a tool has to know of their channels and an application need
/// not. They live in threads of their own, and whoever hears their signals lives in another one.
namespace trelanctl
{

/// \brief The query channel, which subscribes what is stored now and what changes from then on; for
/// the command watch, what is removed as well, from a bus that tells of that.
///
/// It subscribes by itself, since the worker that it derives from would try a wildcard that the bus
/// refuses again and again.
class QueryLink : public bus::TrelanQueryWorker
{
    Q_OBJECT

public:
    QueryLink(const Arguments &arguments, const QString &clientName, QStringList wildCards);

    bool doStart() override;

Q_SIGNALS:
    /// The channel is connected and subscribed.
    void opened();
    void lost();
    /// The channel could not be opened, or another client has its name now; the text says why. With
    /// NoBus it is tried again, anything else is final.
    void failed(int code, QString text);
    /// What became of a message: the code of the bus, -1 if it did not answer, and what to say
    /// about it.
    void sent(bus::TrelanMessage message, int code, QString text);

public Q_SLOTS:
    void send(bus::TrelanMessage message);

private:
    bool subscribe(bus::TrelanQueryHandler &handler);
    void judgeLoss();

    const Arguments _arguments;
    const QString _clientName;
    const QStringList _wildCards;
    bool _hasGivenWay = false; // to another client of this name
};

/// \brief The message channel.
///
/// It stops reading while much of what it has handed over is not printed yet: a reader of the
/// output that takes nothing must not fill the memory of the tool, and the bus has bounds for that.
class MessageLink : public bus::TrelanMsgWorker
{
    Q_OBJECT

public:
    /// How many things may be on their way to be printed: as many as the bus keeps for a client.
    static constexpr int ROOM = 1000;

    /// \a room is what is left of ROOM; whoever has dealt with one thing that came releases one.
    MessageLink(const QString &clientName, Options options, std::shared_ptr<QSemaphore> room);

    bool doStart() override;
    void doProcessMessage(const bus::TrelanMessage &msg) override;
    void doProcessCommand(const bus::TrelanCommand &cmd) override;
    void doProcessObject(const bus::TrelanObject &obj) override;

Q_SIGNALS:
    /// The channel is connected, and the bus has accepted the handshake.
    void opened();
    void lost();
    void unreachable();

private:
    void awaitAcceptance();
    void awaitRoom();

    const std::shared_ptr<QSemaphore> _room;
    QTimer _acceptance;
    QDeadlineTimer _patience;
    bool _connected = false;
};

} // namespace trelanctl
