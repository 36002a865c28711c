#include "completion.h"

#include <CLI/CLI.hpp>

#include <QtCore/QStringList>

namespace trelanctl
{

namespace
{

// %1 is the name of the program, %2 its options, %3 its commands, %4 the options that take a value,
// and %5 one branch for each command.
const char *const SCRIPT = R"(# bash completion for %1; made from the tables of its command line
_%1()
{
    local word=${COMP_WORDS[COMP_CWORD]} verb='' options index
    COMPREPLY=()
    if [[ ${COMP_WORDS[COMP_CWORD - 1]} == --exec ]]; then
        mapfile -t COMPREPLY < <(compgen -c -- "$word"; compgen -f -- "$word")
        return
    fi
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    %4) return ;; # a value that nobody can guess
    esac
    for ((index = 1; index < COMP_CWORD; ++index)); do
        case ${COMP_WORDS[index]} in
        %4) ((++index)) ;;
        -*) ;;
        *)
            verb=${COMP_WORDS[index]}
            break
            ;;
        esac
    done
    case $verb in
    '') options='%3' ;;
%5    *) options='' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options %2" -- "$word")
}
complete -F _%1 %1
)";

/// The long names of the options that the help shows, or only of the options with a value.
QStringList optionNames(const CLI::App &app, bool withValue)
{
    QStringList names;
    for (const CLI::Option *option : app.get_options()) {
        if (option->get_positional() || option->get_group().empty() ||
            (withValue && option->get_items_expected_max() == 0))
            continue;
        for (const std::string &name : option->get_lnames()) {
            if (name != "help" || app.get_parent() == nullptr) // every command has that one
                names.append(QStringLiteral("--") + QString::fromStdString(name));
        }
    }
    return names;
}

} // namespace

QString completionScript(const CLI::App &app)
{
    QStringList commands;
    QStringList withValue = optionNames(app, true);
    QString branches;
    const QString branch = QStringLiteral("    %1) options='%2' ;;\n");
    for (const CLI::App *command : app.get_subcommands({})) {
        const QString name = QString::fromStdString(command->get_name());
        commands.append(name);
        withValue += optionNames(*command, true);
        branches += branch.arg(name, optionNames(*command, false).join(QLatin1Char(' ')));
    }
    withValue.removeDuplicates();
    QString script = QString::fromLatin1(SCRIPT);
    script.replace(QLatin1String("%1"), QString::fromStdString(app.get_name()));
    script.replace(QLatin1String("%2"), optionNames(app, false).join(QLatin1Char(' ')));
    script.replace(QLatin1String("%3"), commands.join(QLatin1Char(' ')));
    script.replace(QLatin1String("%4"), withValue.join(QStringLiteral(" | ")));
    script.replace(QLatin1String("%5"), branches);
    return script.trimmed();
}

} // namespace trelanctl
