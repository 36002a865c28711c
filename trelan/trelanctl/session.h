#pragma once

#include "busaccess.h"
#include "output.h"

#include <trelancontroller.h>

#include <QtCore/QSocketNotifier>

#include <memory>

namespace trelanctl
{

/// \brief The bus for a command that stays: both channels, which come back by themselves.
///
/// The session says on standard error when the bus goes away and when it is back. A bus that was
/// never there ends it with NoBus. SIGINT and SIGTERM end it too, and so does a reader of its
/// output that goes away; what the bus has handed over until then still comes out of the
/// controller's signals.
class Session : public bus::TrelanController
{
    Q_OBJECT

public:
    /// \a endCode is the exit code after SIGINT or SIGTERM.
    Session(const Arguments &arguments, const QString &clientName, QStringList wildCards,
            ExitCode endCode);
    ~Session() override;

    /// Returns when finish() was called.
    ExitCode run();

    /// Ends the session. Only the first outcome counts.
    void finish(const Outcome &outcome);
    bool isFinished() const { return _finished; }

    /// Whether both channels are open.
    bool isReady() const { return _queryOpen && _messageOpen; }
    /// Whether both channels have ever been open.
    bool wasReady() const { return _wasReady; }

    /// Prints one line. The session ends if nobody takes it.
    void print(const QString &line);

Q_SIGNALS:
    /// Both channels are open, for the first time or again.
    void ready();
    void send(bus::TrelanMessage message);
    void sent(bus::TrelanMessage message, int code, QString text);

protected:
    bool doStart() override;

private:
    void setOpen(bool &channel, bool open);
    void sayAway();
    void judgeStart();
    void watchEnds();

    const Arguments _arguments;
    const QStringList _wildCards;
    const ExitCode _endCode;
    Output _output;
    std::unique_ptr<QSocketNotifier> _signal;
    std::unique_ptr<QSocketNotifier> _reader;
    bool _queryOpen = false;
    bool _messageOpen = false;
    bool _unreachable = false; // of the message channel, since the start
    bool _wasReady = false;
    bool _away = false;
    bool _finished = false;
    Outcome _outcome;
};

} // namespace trelanctl
