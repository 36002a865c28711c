#pragma once

#include <QtCore/QString>

// NOLINTNEXTLINE(readability-identifier-naming): the parser's own
namespace CLI
{
class App;
}

namespace trelanctl
{

/// Makes a script that completes the commands and options of \a app in bash.
QString completionScript(const CLI::App &app);

} // namespace trelanctl
