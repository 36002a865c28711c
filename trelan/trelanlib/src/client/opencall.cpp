#include "client/opencall.h"

#include "client/clientdoor.h"
#include "client/clientengine.h"
#include "values/uids.h"

#include <jsonwriter.h>

namespace bus
{

const QString ERROR_PARAMETER = QStringLiteral("error");

TrelanMessage messageOf(const TrelanCommand &command)
{
    TrelanCommand bare(command);
    bare.setParams({}); // written below
    TrelanMessage message;
    bare.toTrelanMessage(message);
    message.setStored(false);
    QVariantMap call {{TrelanCommand::MSG_NAME_HD, command.name()},
                      {TrelanCommand::MSG_PARAMS_HD, command.params()}};
    if (!command.parentUid().isEmpty())
        call.insert(TrelanCommand::PARENT_UID_HD, command.parentUid());
    message.setMessage(QString::fromUtf8(json::exact({{TrelanCommand::MSG_CMD_HD, call}})));
    return message;
}

TrelanMessage answerTo(const TrelanCommand &call, const QVariantMap &result)
{
    TrelanCommand answer;
    answer.setName(call.name());
    answer.setParams(result);
    answer.setParentUid(call.uid());
    answer.setReciever(call.sender());
    answer.setUid(uids::random());
    return messageOf(answer);
}

OpenCall::OpenCall(const TrelanCommand &command, const std::weak_ptr<ClientDoor> &door,
                   const std::shared_ptr<std::atomic<int>> &open)
    : _command(command)
    , _door(door)
    , _open(open)
{
    ++*_open;
}

OpenCall::~OpenCall()
{
    answer({{ERROR_PARAMETER,
             QStringLiteral("the call of \"%1\" was not answered").arg(_command.name())}});
    --*_open;
}

void OpenCall::answer(const QVariantMap &result)
{
    if (_isAnswered.exchange(true) || !_command.needAnswer())
        return;
    if (const std::shared_ptr<ClientDoor> door = _door.lock())
        ClientEngine::send(*door, answerTo(_command, result), {});
}

} // namespace bus
