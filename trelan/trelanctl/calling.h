#pragma once

#include "session.h"

namespace trelanctl
{

/// \brief A command to one client, and its answer.
///
/// The command does not wait for a client that is not there: a command carried out when nobody
/// waits for the answer any more is a hazard. Nor does a late answer wait for the caller.
class Calling
{
public:
    Calling(const Arguments &arguments, const QVariantMap &parameters);

    ExitCode run();

private:
    void call();
    void judge(int code, const QString &text);
    void take(const bus::TrelanCommand &answer);
    void giveUp();

    const Arguments _arguments;
    bus::TrelanCommand _call;
    bool _called = false;
    Session _session;
};

} // namespace trelanctl
