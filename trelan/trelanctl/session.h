#pragma once

#include "busaccess.h"
#include "output.h"

#include <trelancontroller.h>

#include <QtCore/QSocketNotifier>

#include <memory>

namespace trelanctl
{

/// \brief What a command that stays has of the bus: both channels, which come back by themselves.
///
/// It says on standard error when the bus goes away and when it is back. A bus that was never there
/// ends it with NoBus. It ends on SIGINT and SIGTERM too, and when nobody reads its output any
/// more; what the bus has handed over until then is still told by the controller's signals.
class Session : public bus::TrelanController
{
    Q_OBJECT

public:
    /// \a endCode: what a signal that ends it ends it with.
    Session(const Arguments &arguments, const QString &clientName, QStringList wildCards,
            ExitCode endCode);
    ~Session() override;

    /// Returns when finish() was called.
    ExitCode run();

    /// The first outcome counts.
    void finish(const Outcome &outcome);
    bool isFinished() const { return _finished; }

    /// Whether both channels are there.
    bool isReady() const { return _queryOpen && _messageOpen; }
    /// Whether they have ever been.
    bool wasReady() const { return _wasReady; }

    /// One line; the session ends if nobody takes it.
    void print(const QString &line);

Q_SIGNALS:
    /// Both channels are there, for the first time or again.
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
