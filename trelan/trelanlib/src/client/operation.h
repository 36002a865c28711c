#pragma once

#include "client/deadlines.h"
#include "client/pendingstate.h"
#include "trelanmessage.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <functional>
#include <memory>
#include <optional>

namespace bus
{

/// \brief One operation of a client, from the call that begins it to its end. Internal to the
/// library.
///
/// Made by the thread that asks for it, then used in the client's own thread alone.
struct Operation
{
    using Ref = std::shared_ptr<Operation>;
    /// Makes the result of the data of a reply that says yes.
    using Result = std::function<QVariant(const QVariantMap &data)>;

    PendingState::Ref state = PendingState::make();
    QByteArray frame;                     ///< the request; empty if it is made when it is sent
    std::optional<TrelanMessage> message; ///< what is sent, if it is a message
    QString storedName;                   ///< of the stored object that is published, if one is
    QStringList removedNames;             ///< of a removal
    QString call;                         ///< the uid of the call whose answer is waited for
    Result result;                        ///< none: there is no result
    qint64 deadline = 0;                  ///< on the client's clock
    qint64 cost = 0;                      ///< bytes that count against the client's bound
    bool waitsForBus = false;
    bool mayRepeat = false;
    bool isOver = false;
    std::optional<Deadlines::Place> place; ///< among the deadlines, until it is over

    bool isStoredPublish() const { return !storedName.isEmpty(); }
};

} // namespace bus
