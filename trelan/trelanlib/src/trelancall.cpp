#include "trelancall.h"

#include "client/opencall.h"

namespace bus
{

TrelanCall::TrelanCall() = default;
TrelanCall::TrelanCall(const std::shared_ptr<OpenCall> &call)
    : _call(call)
{}
TrelanCall::TrelanCall(const TrelanCall &other) = default;
TrelanCall &TrelanCall::operator=(const TrelanCall &other) = default;
TrelanCall::~TrelanCall() = default;

TrelanCommand TrelanCall::command() const
{
    return _call ? _call->command() : TrelanCommand();
}

void TrelanCall::answer(const QVariantMap &result) const
{
    if (_call)
        _call->answer(result);
}

void TrelanCall::fail(const QString &description) const
{
    answer({{ERROR_PARAMETER, description}});
}

} // namespace bus
