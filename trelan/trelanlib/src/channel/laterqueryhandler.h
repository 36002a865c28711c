#pragma once

#include "trelanqueryhandler.h"

#include <functional>

namespace bus
{

/// \brief A handler whose requests need not be waited for. Internal to the library.
///
/// Each function takes what is called when the request has ended, or nothing. It is not called for
/// requests that are still waiting when the handler is deleted.
class LaterQueryHandler : public TrelanQueryHandler
{
public:
    using TrelanQueryHandler::TrelanQueryHandler;

    /// \a answer is the reply's "data". Where the request was not done, lastFailure() and
    /// lastError() say why, during the call.
    using Done = std::function<void(bool done, const QVariantMap &answer)>;

    void publishLater(const TrelanObject &object, const Done &done = {});
    void removeLater(const QStringList &names, const Done &done = {});
    void sendMessageLater(const TrelanMessage &message, const Done &done = {});
    void sendCommandLater(const TrelanCommand &command, const Done &done = {});
    void subscribeLater(const QString &wildcard, const Done &done = {});
    void subscribeLater(const QStringList &wildcards, const Done &done = {},
                        SubscribeOptions options = {});
    void unsubscribeLater(const QString &wildcard, const Done &done = {});
    void unsubscribeLater(const QStringList &wildcards, const Done &done = {});
    void loadObjectLater(const QString &name, const Done &done);
    void loadObjectsLater(const QString &wildcard, const Done &done);

    /// Waits for what was asked so far.
    void takeReplies();

private:
    void askLater(const QByteArray &frame, const Done &done);
};

} // namespace bus
