#include "programrun.h"

#include "contentparser.h"
#include "terminaltext.h"

#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QStandardPaths>

#include <csignal>

#include <sys/prctl.h>
#include <unistd.h>

namespace trelanctl
{

namespace
{

// More than anybody should say in one answer, and far below the limit of a frame.
const int OUTPUT_LIMIT = 1024 * 1024;

} // namespace

ProgramRun::ProgramRun(const QString &program, const QStringList &arguments, QObject *parent)
    : QProcess(parent)
{
    setProgram(program);
    setArguments(arguments);
    setProcessChannelMode(QProcess::ForwardedErrorChannel);
    _deadline.setSingleShot(true);
    connect(&_deadline, &QTimer::timeout, this, [this] {
        _fault = QStringLiteral("the program did not end within %1 s")
                     .arg(_deadline.interval() / 1000.0);
        killAll();
    });
    connect(this, &QProcess::readyReadStandardOutput, this, &ProgramRun::readOutput);
    connect(this, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        // A program may leave its input unread, and all other faults end it.
        if (error == QProcess::FailedToStart)
            end(errorAnswer(
                QStringLiteral("the program cannot be started: %1").arg(errorString())));
    });
    connect(this, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            [this](int exitCode, QProcess::ExitStatus status) {
                readOutput();
                end(judge(exitCode, status));
            });
}

ProgramRun::~ProgramRun()
{
    blockSignals(true);
    killAll();
}

void ProgramRun::run(const QVariantMap &parameters, int timeoutMs)
{
    start();
    write(QJsonDocument::fromVariant(parameters).toJson(QJsonDocument::Compact) + '\n');
    closeWriteChannel();
    _deadline.start(timeoutMs);
}

/// Finds a program as QProcess does: one without a slash is looked for in PATH.
QString ProgramRun::faultOf(const QString &program)
{
    const QString shown = terminal::escaped(program);
    const bool hasFolder = program.contains(QLatin1Char('/'));
    const QFileInfo file(hasFolder ? program : QStandardPaths::findExecutable(program));
    if (!hasFolder && file.filePath().isEmpty())
        return QStringLiteral("there is no program '%1' in PATH").arg(shown);
    if (!file.exists())
        return QStringLiteral("there is no program '%1'").arg(shown);
    if (!file.isFile())
        return QStringLiteral("'%1' is no file").arg(shown);
    if (!file.isExecutable())
        return QStringLiteral("'%1' is not executable").arg(shown);
    return {};
}

QVariantMap ProgramRun::errorAnswer(const QString &text)
{
    return {{QStringLiteral("error"), text}};
}

/// Runs in the child, before the program.
void ProgramRun::setupChildProcess()
{
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // ends the program if the tool itself is killed
}

void ProgramRun::readOutput()
{
    _written += readAllStandardOutput();
    if (_written.size() <= OUTPUT_LIMIT)
        return;
    _written.clear();
    _fault = QStringLiteral("the program wrote more than %1 bytes").arg(OUTPUT_LIMIT);
    killAll();
}

void ProgramRun::killAll()
{
    const qint64 group = processId();
    if (group > 0)
        ::kill(pid_t(-group), SIGKILL);
    kill(); // the group may not exist yet
}

void ProgramRun::end(const QVariantMap &answer)
{
    _deadline.stop();
    if (!_ended) {
        _ended = true;
        emit answered(answer);
    }
}

QVariantMap ProgramRun::judge(int exitCode, QProcess::ExitStatus status) const
{
    if (!_fault.isEmpty())
        return errorAnswer(_fault);
    if (status == QProcess::CrashExit)
        return errorAnswer(QStringLiteral("the program was ended by a signal"));
    if (exitCode != 0)
        return errorAnswer(QStringLiteral("the program ended with exit code %1").arg(exitCode));
    const ParsedContent answer = parseJsonContent(_written);
    return answer.isValid()
               ? answer.content
               : errorAnswer(QStringLiteral("the program's output: %1").arg(answer.errorText));
}

} // namespace trelanctl
