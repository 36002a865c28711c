#pragma once

#include "arguments.h"
#include "output.h"

namespace trelanctl
{

/// \brief Does what the command line asks for, and tells each fault once on standard error.
///
/// A command that only asks the bus opens one query connection, and blocks for as long as the query
/// channel does. All other commands have classes of their own.
class Commands
{
public:
    explicit Commands(const Arguments &arguments);

    ExitCode run();

private:
    ExitCode runCommand();
    ExitCode publish();
    ExitCode get();
    ExitCode list();
    ExitCode remove();
    ExitCode send();
    ExitCode call();
    ExitCode clients();
    ExitCode whoAmI();
    ExitCode askForClients(QVariantList &clients);
    ExitCode match();
    ExitCode frame();

    bool readContent(QVariantMap &content);
    ExitCode failed(const bus::TrelanQueryHandler &handler) const;

    const Arguments _arguments;
    Output _output;
};

} // namespace trelanctl
