#pragma once

#include "morvikglobal.h"

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QtGlobal>

#include <functional>

/// \brief Where the log lines of a process go: named outputs behind one Qt message handler.
///
/// All functions are static and thread-safe. An output is called in whichever thread logs, one line
/// at a time for all outputs. What it logs itself does not come back to it: Qt prints that, and
/// what it hands to handle() goes to the other outputs. An output that is removed is not called any
/// more once removeOutput() has returned, unless it removed itself.
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

    /// Adds \a output under \a name, in place of one of that name.
    static void addOutput(const QString &name, const Output &output);
    /// Removes the output; nothing if there is none of that name.
    static void removeOutput(const QString &name);
    static QStringList outputs();

    /// Becomes Qt's message handler. The handler that was there before stays an output of last
    /// resort: it gets the lines as long as no output is added.
    static void install();
    /// Puts back the handler that was there before install().
    static void uninstall();

    /// Hands one line to the outputs, as Qt does after install().
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text);
};
