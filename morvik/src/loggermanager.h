#pragma once

#include "morvikglobal.h"

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QtGlobal>

#include <functional>

/// \brief Where the log lines of a process go: named outputs behind one Qt message handler.
///
/// All functions are static and thread-safe. An output is called in whichever thread logs; all
/// outputs together get one line at a time. A line that an output logs does not come back to it: Qt
/// prints the line. A line that an output hands to handle() goes to the other outputs.
/// removeOutput() returns when the output is not called any more, unless an output removes itself.
///
/// \code
/// LoggerManager::addOutput("file", [&](QtMsgType, const QMessageLogContext &, const QString &text)
/// {
///     file.write(text.toUtf8() + '\n');
/// });
/// LoggerManager::install();
/// \endcode
class MORVIK_EXPORT LoggerManager
{
public:
    using Output = std::function<void(QtMsgType, const QMessageLogContext &, const QString &)>;

    /// Adds \a output under \a name, in place of the output that had the name.
    static void addOutput(const QString &name, const Output &output);
    /// Removes the output called \a name, if there is one.
    static void removeOutput(const QString &name);
    /// The names of all outputs, sorted.
    static QStringList outputs();

    /// Becomes Qt's message handler. The handler that was there before gets the lines while there
    /// is no output.
    static void install();
    /// Puts back the handler that was there before install().
    static void uninstall();

    /// Hands one line to the outputs, as Qt does after install().
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text);
};
