#include "arguments.h"
#include "commands.h"
#include "output.h"
#include "terminaltext.h"

#include <QtCore/QCoreApplication>

#include <fcntl.h>
#include <unistd.h>

namespace
{

bool _verbose = false;

// The tool says by itself what went wrong; what the library logs of it would say it twice.
void showLog(QtMsgType, const QMessageLogContext &, const QString &text)
{
    if (_verbose)
        trelanctl::Output::error(trelanctl::terminal::escaped(text.simplified()));
}

/// A standard descriptor that is closed would become the socket, and what is printed go to the bus.
/// What takes its place can be neither read nor written, so that the fault is noticed.
void occupyStandardDescriptors()
{
    int descriptor = ::open("/dev/null", O_PATH);
    while (descriptor >= STDIN_FILENO && descriptor <= STDERR_FILENO)
        descriptor = ::open("/dev/null", O_PATH);
    ::close(descriptor);
}

} // namespace

int main(int argc, char **argv)
{
    occupyStandardDescriptors();
    QList<QByteArray> words; // before Qt, which would take options of its own away
    for (int index = 1; index < argc; ++index)
        words.append(argv[index]);
    qInstallMessageHandler(showLog);
    const QCoreApplication application(argc, argv);

    const trelanctl::ParsedArguments parsed = trelanctl::parseArguments(words);
    if (!parsed.run && parsed.exitCode == trelanctl::Done) {
        trelanctl::Output output;
        output.line(parsed.text);
        return output.failed() ? trelanctl::Failed : trelanctl::Done;
    }
    if (!parsed.run) {
        trelanctl::Output::error(parsed.text);
        return parsed.exitCode;
    }
    _verbose = parsed.arguments.verbose;
    return trelanctl::Commands(parsed.arguments).run();
}
