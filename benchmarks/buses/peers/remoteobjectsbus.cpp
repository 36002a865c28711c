#include "remoteobjectsbus.h"

#include "arrivals.h"
#include "rep_board_merged.h"

#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtRemoteObjects/QRemoteObjectNode>

namespace
{

constexpr int PATIENCE_MS = 10000;

/// Qt Remote Objects leaves that to the system.
void sendAtOnce(const QObject &node)
{
    for (QTcpSocket *socket : node.findChildren<QTcpSocket *>())
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
}

class RemotePublisher : public Publisher
{
public:
    bool open(const QUrl &url)
    {
        if (!_node.connectToNode(url))
            return false;
        _inbox.reset(_node.acquire<InboxReplica>());
        sendAtOnce(_node);
        return _inbox->waitForSource(PATIENCE_MS);
    }

    bool publish(const QVariantMap &content) override
    {
        QRemoteObjectPendingReply<bool> reply = _inbox->publish(content);
        return reply.waitForFinished(PATIENCE_MS) && reply.returnValue();
    }
    bool publishAll(const QVariantMap &content, int number) override
    {
        QList<QRemoteObjectPendingReply<bool>> replies;
        for (int i = 0; i < number; ++i)
            replies.append(_inbox->publish(content));
        for (QRemoteObjectPendingReply<bool> &reply : replies) {
            if (!reply.isFinished() && !reply.waitForFinished(PATIENCE_MS))
                return false;
        }
        return true;
    }

private:
    QRemoteObjectNode _node;
    std::unique_ptr<InboxReplica> _inbox;
};

class RemoteReceiver : public Receiver
{
public:
    bool open(const QUrl &url, Arrivals &arrivals)
    {
        if (!_node.connectToNode(url))
            return false;
        _board.reset(_node.acquire<BoardReplica>());
        sendAtOnce(_node);
        QObject::connect(_board.get(), &BoardReplica::published,
                         [&arrivals](const QVariantMap &content) { arrivals.count(content); });
        return _board->waitForSource(PATIENCE_MS);
    }

private:
    QRemoteObjectNode _node;
    std::unique_ptr<BoardReplica> _board;
};

class Board : public BoardSimpleSource
{};

class Inbox : public InboxSimpleSource
{
public:
    explicit Inbox(Board &board)
        : _board(board)
    {}
    bool publish(const QVariantMap &content) override
    {
        emit _board.published(content);
        return true;
    }

private:
    Board &_board;
};

} // namespace

RemoteObjectsBus::RemoteObjectsBus(const QStringList &address)
    : _url(address.value(0))
{}

std::unique_ptr<Publisher> RemoteObjectsBus::connectPublisher()
{
    auto publisher = std::make_unique<RemotePublisher>();
    return publisher->open(_url) ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> RemoteObjectsBus::connectReceiver(int /*number*/, Arrivals &arrivals)
{
    auto receiver = std::make_unique<RemoteReceiver>();
    return receiver->open(_url, arrivals) ? std::move(receiver) : nullptr;
}

void RemoteObjectsBus::serve()
{
    Board board;
    Inbox inbox(board);
    QRemoteObjectHost host;
    host.setHostUrl(QUrl(QStringLiteral("bench:")), QRemoteObjectHost::AllowExternalRegistration);
    if (!host.enableRemoting(&board) || !host.enableRemoting(&inbox))
        return;
    // Its own server gives nobody the sockets, which have to send at once.
    QTcpServer server;
    QObject::connect(&server, &QTcpServer::newConnection, [&] {
        while (QTcpSocket *socket = server.nextPendingConnection()) {
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            host.addHostSideConnection(socket);
        }
    });
    if (!server.listen(QHostAddress::LocalHost))
        return;
    ready({QStringLiteral("tcp://127.0.0.1:%1").arg(server.serverPort())});
    QCoreApplication::exec();
}
