#pragma once

#include <trelanmessagereciever.h>
#include <trelanqueryhandler.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace trelanctl
{

/// How the tool ends; scripts rely on the numbers.
enum ExitCode {
    Done = 0,
    Failed = 1, ///< refused by the bus, or the answer is no
    Usage = 2,
    NoBus = 3
};

/// What a command line asks for.
struct Arguments
{
    enum Command {
        Publish,
        Get,
        List,
        Remove,
        Watch,
        Wait,
        Send,
        Call,
        Serve,
        Logs,
        Clients,
        WhoAmI,
        Bench,
        Match,
        Frame
    };

    Command command = List;
    QString name; ///< of an object, or of a command
    QString wildCard = QStringLiteral("*");
    QStringList names;   ///< to remove; wildcards to watch
    QStringList content; ///< a JSON object, "-" or key=value pairs; also a command's parameters
    QString client;      ///< to send to
    QString text;        ///< to send
    bool stored = false; ///< a text waits for a client that is not there
    QString program;
    QStringList programArguments;
    int timeoutMs = 0;
    double seconds = 0; ///< of a measurement
    bool permanent = false;
    bool notStored = false;
    bool logged = false;

    QString host = QStringLiteral("127.0.0.1");
    quint16 queryPort = bus::TrelanQueryHandler::DEFAULT_PORT;
    quint16 messagePort = bus::TrelanMessageReciever::DEFAULT_PORT;
    QString clientName;
    bool json = false;
    bool verbose = false;
};

/// \brief A command line taken apart.
struct ParsedArguments
{
    /// Whether to go on with arguments. Otherwise the caller prints text and ends with exitCode:
    /// text is help for Done, and an error for Usage.
    bool run = false;
    ExitCode exitCode = Done;
    QString text;
    Arguments arguments;
};

/// Takes a command line apart. Pure. \a argv leaves out the program's own name, and is UTF-8
/// whatever the locale, since the texts on the bus are UTF-8.
ParsedArguments parseArguments(const QList<QByteArray> &argv);

} // namespace trelanctl
