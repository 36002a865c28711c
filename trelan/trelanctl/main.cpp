#include "arguments.h"
#include "commands.h"
#include "output.h"
#include "terminaltext.h"

#include <standarddescriptors.h>
#include <trelantransport.h>

#include <QtCore/QCoreApplication>

namespace
{

bool _verbose = false;

// Silent unless asked: the tool says what went wrong by itself, and the library would say it again.
void showLog(QtMsgType, const QMessageLogContext &, const QString &text)
{
    if (_verbose)
        trelanctl::Output::error(trelanctl::terminal::escaped(text.simplified()));
}

} // namespace

int main(int argc, char **argv)
{
    programs::occupyStandardDescriptors();
    QList<QByteArray> words; // taken before Qt removes the options that it knows
    for (int index = 1; index < argc; ++index)
        words.append(argv[index]);
    qInstallMessageHandler(showLog);
    const QCoreApplication application(argc, argv);
    bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);
    bus::TrelanTransport::setCoding(bus::TrelanTransport::Light);

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
