#pragma once

#include "session.h"

#include <QtCore/QList>
#include <QtCore/QQueue>

namespace trelanctl
{

class ProgramRun;

/// \brief Answers a command with what a program makes of its parameters, until the end.
///
/// Commands to everybody are carried out like those to this client; where no answer is wanted, none
/// goes out. A few programs run at once, a bounded number of commands waits, and what is beyond is
/// refused by an answer with an "error". Answers wait for a bus that is away, as many as commands.
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
