#pragma once

#include "arguments.h"
#include "output.h"

namespace trelanctl
{

/// \brief Does what the command line asks for, and tells each fault once on standard error.
///
/// It opens at most one query connection, and blocks for as long as the query channel does.
class Commands
{
public:
    explicit Commands(const Arguments &arguments);

    ExitCode run();

private:
    ExitCode publish();
    ExitCode get();
    ExitCode list();
    ExitCode remove();
    ExitCode match();
    ExitCode frame();

    bool readContent(QVariantMap &content);
    bool findHost();
    ExitCode connectTo(bus::TrelanQueryHandler &handler);
    ExitCode failed(const bus::TrelanQueryHandler &handler, bool connected) const;

    const Arguments _arguments;
    Output _output;
};

} // namespace trelanctl
