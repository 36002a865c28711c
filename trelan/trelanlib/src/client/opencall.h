#pragma once

#include "trelancall.h"
#include "trelanmessage.h"

#include <QtCore/QVariantMap>

#include <atomic>
#include <memory>

namespace bus
{

class ClientDoor;

/// \brief A call that waits for its one answer. Internal to the library; thread-safe.
class OpenCall
{
public:
    /// \a open counts the calls that are not answered.
    OpenCall(const TrelanCommand &command, const std::weak_ptr<ClientDoor> &door,
             const std::shared_ptr<std::atomic<int>> &open);
    /// Answers with an error if nobody has answered.
    ~OpenCall();
    OpenCall(const OpenCall &) = delete;
    OpenCall &operator=(const OpenCall &) = delete;

    const TrelanCommand &command() const { return _command; }
    void answer(const QVariantMap &result);

private:
    const TrelanCommand _command;
    const std::weak_ptr<ClientDoor> _door;
    const std::shared_ptr<std::atomic<int>> _open;
    std::atomic<bool> _isAnswered {false};
};

/// The parameter of an answer that says that the call has failed.
extern const QString ERROR_PARAMETER;

/// The message of a call or an answer, which is not stored: nobody is to be called when nobody
/// waits any more. Whole numbers are written exactly.
TrelanMessage messageOf(const TrelanCommand &command);

/// The message that answers \a call, which does not wait where the caller is not connected.
TrelanMessage answerTo(const TrelanCommand &call, const QVariantMap &result);

} // namespace bus
