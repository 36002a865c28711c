#pragma once

#include "trelanqueryhandler.h"

#include <functional>

namespace bus
{

/// \brief A handler whose requests need not be waited for. Internal to the library.
///
/// Nothing tells how a request went, except for a load: \a loaded is called if it succeeded.
class LaterQueryHandler : public TrelanQueryHandler
{
public:
    using TrelanQueryHandler::TrelanQueryHandler;

    void publishLater(const TrelanObject &object);
    void sendMessageLater(const TrelanMessage &message);
    void sendCommandLater(const TrelanCommand &command);
    void subscribeLater(const QString &wildcard);
    void subscribeLater(const QStringList &wildcards);
    void unsubscribeLater(const QString &wildcard);
    void unsubscribeLater(const QStringList &wildcards);
    void loadObjectLater(const QString &name,
                         const std::function<void(const TrelanObject &)> &loaded);

    /// Waits for what was asked so far.
    void takeReplies();

private:
    void askLater(const QByteArray &frame);
};

} // namespace bus
