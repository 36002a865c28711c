#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtCore/QTimer>
#include <QtCore/QVariantMap>

namespace trelanctl
{

/// \brief One run of a program: parameters as JSON on its standard input, the answer's parameters
/// as a JSON object from its standard output.
///
/// Whatever goes wrong is an answer too, with the one parameter "error". There is no shell. The
/// program gets a process group of its own, which is killed as a whole when the time is over, when
/// the program writes too much, and when this object is destroyed. The program shares the tool's
/// error output.
class ProgramRun : public QProcess
{
    Q_OBJECT

public:
    ProgramRun(const QString &program, const QStringList &arguments, QObject *parent = nullptr);
    ~ProgramRun() override;

    void run(const QVariantMap &parameters, int timeoutMs);

    /// Why \a program cannot be run, for people; empty if it can.
    static QString faultOf(const QString &program);

    /// The answer that says no more than that something went wrong.
    static QVariantMap errorAnswer(const QString &text);

Q_SIGNALS:
    /// Emitted once.
    void answered(QVariantMap parameters);

protected:
    void setupChildProcess() override;

private:
    void readOutput();
    void killAll();
    void end(const QVariantMap &answer);
    QVariantMap judge(int exitCode, QProcess::ExitStatus status) const;

    QTimer _deadline;
    QByteArray _written;
    QString _fault; // why it was killed
    bool _ended = false;
};

} // namespace trelanctl
