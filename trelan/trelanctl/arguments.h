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

/// What the command line asks for.
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

/// \brief A command line taken apart. Pure; the texts are for the caller to print.
struct ParsedArguments
{
    /// Whether to go on with arguments. If not, print text and end with exitCode: it is help for
    /// Done, and an error for Usage.
    bool run = false;
    ExitCode exitCode = Done;
    QString text;
    Arguments arguments;
};

/// \a argv without the program's own name, in UTF-8 whatever the locale, as the bus has it.
ParsedArguments parseArguments(const QList<QByteArray> &argv);

} // namespace trelanctl
