#pragma once

#include "channel/connectioncount.h"
#include "channel/promptquery.h"
#include "trelanchannelsettings.h"
#include "trelanqueryhandler.h"
#include "trelantransport.h"

#include <QtCore/QByteArray>
#include <QtCore/QPointer>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <functional>
#include <optional>

class QTcpSocket;

namespace bus
{

/// What TrelanQueryHandler keeps, the requests that it makes of its operations, and the paced way
/// of asking them. The prompt way is a PromptQuery's. Internal to the library.
class TrelanQueryHandler::Private
{
public:
    /// What is done about a reply, or about there being none.
    using Done = std::function<void(bool done, const QVariantMap &answer)>;

    Private(TrelanQueryHandler &handler, const QString &clientName);

    /// \name Frames of requests
    /// @{
    QByteArray frameOf(const QString &operation, const QVariantMap &data) const;
    QByteArray publishFrame(TrelanObject object) const;
    QByteArray messageFrame(TrelanMessage message) const;
    QByteArray commandFrame(TrelanCommand command) const;
    QByteArray removeFrame(const QStringList &names) const;
    QByteArray loadFrame(const QString &name) const;
    QByteArray loadAllFrame(const QString &wildcard) const;
    QByteArray subscribeFrame(const QString &wildcard, SubscribeOptions options) const;
    QByteArray subscribeFrame(const QStringList &wildcards, SubscribeOptions options) const;
    QByteArray unsubscribeFrame(const QString &wildcard) const;
    QByteArray unsubscribeFrame(const QStringList &wildcards) const;
    /// @}

    /// Asks a request and waits for the reply.
    bool request(const QByteArray &frame, QVariantMap &answer);
    bool request(const QByteArray &frame);
    /// Asks a request. In Prompt mode its reply is taken when the event loop has nothing left to
    /// ask before it, or by takeReplies(); in Paced mode it is waited for.
    void requestLater(const QByteArray &frame, const Done &done);
    void takeReplies();

    /// Publishes one after the other, in Prompt mode ahead of the replies.
    bool publish(const QList<TrelanObject> &objects);

    bool isConnected() const;
    /// What the next connection is made with.
    TrelanChannelSettings settings() const;
    bool open();
    void close();
    bool handshake();
    void resetFailure();
    bool fail(Failure failure);
    bool judge(const QString &operation, const QVariantMap &result);

    QPointer<QTcpSocket> _socket;
    QString _clientName;
    std::optional<TrelanChannelSettings> _ownSettings;
    bool _handshaked = false;
    bool _asksFeatures = false;
    QStringList _features;
    Failure _lastFailure = None;
    TrelanError _lastError;

private:
    void makeSocket();
    bool isPrompt() const;
    bool openOnce();
    bool connectToBus(const TrelanChannelSettings &settings);
    bool failUnlessLost(Failure failure, const ConnectionCount::Mark &connection);
    bool breakOff(Failure failure);
    bool pacedRequest(const QByteArray &frame, QVariantMap &answer);
    bool waitForReply(qint64 staleBytes, const ConnectionCount::Mark &connection);
    bool readReply(QVariantMap &answer, const ConnectionCount::Mark &connection);
    QByteArray readPayload(int size, const ConnectionCount::Mark &connection) const;
    PromptQuery::Done judgeLater(const Done &done);
    bool takeResult(const PromptQuery::Result &result, QVariantMap &answer);
    bool takePayload(const QByteArray &payload, QVariantMap &answer);

    TrelanQueryHandler &_handler;
    TrelanTransport::Mode _mode;
    TrelanTransport::Coding _coding = TrelanTransport::Classic;
    ConnectionCount _connections;
    PromptQuery _prompt;
    bool _namesFeatures = false; // this connection's handshake has the key
    bool _isKeyRefused = false;  // and the bus has refused it
    QByteArray _plainYes; // the last payload in Prompt mode that said nothing but that it is done
};

} // namespace bus
