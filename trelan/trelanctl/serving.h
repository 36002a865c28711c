#pragma once

#include "session.h"

#include <QtCore/QList>
#include <QtCore/QQueue>

namespace trelanctl
{

class ProgramRun;

/// \brief Answers a command with what a program makes of its parameters, until the end.
///
/// Commands to everybody are carried out like commands to this client, and a command that wants no
/// answer gets none. A few programs run at once, a bounded number of commands waits, and a command
/// beyond is refused by an answer with an "error". As many answers as commands wait for a bus that
/// is away.
class Serving
{
public:
    explicit Serving(const Arguments &arguments);
    ~Serving();

    ExitCode run();

private:
    void take(const bus::TrelanCommand &call);
    void startNext();
    void finished(ProgramRun *run, const bus::TrelanCommand &call, const QVariantMap &parameters);
    void answer(const bus::TrelanCommand &call, const QVariantMap &parameters);
    void sendAnswers();

    const Arguments _arguments;
    Session _session;
    QQueue<bus::TrelanCommand> _waiting;
    QList<ProgramRun *> _runs;
    QQueue<bus::TrelanMessage> _answers;
};

} // namespace trelanctl
