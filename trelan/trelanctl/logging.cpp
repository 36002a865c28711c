#include "logging.h"

#include "objecttable.h"
#include "session.h"

namespace trelanctl
{

ExitCode showLogs(const Arguments &arguments)
{
    const bool coloured = Output::isTerminal();
    Session session(arguments, QStringLiteral("logger"), {}, Done); // applications send to it
    QObject::connect(
        &session, &Session::unprocessedCommand, &session, [&](const bus::TrelanCommand &command) {
            if (command.name() == QLatin1String("saveLog"))
                session.print(arguments.json ? logJson(command) : logText(command, coloured));
        });
    return session.run();
}

} // namespace trelanctl
