#pragma once

#include <QtCore/QString>

namespace CLI
{
class App;
}

namespace trelanctl
{

/// A script that completes the commands and options of \a app in bash.
QString completionScript(const CLI::App &app);

} // namespace trelanctl
