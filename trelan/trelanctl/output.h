#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace trelanctl
{

/// \brief Standard output and standard error of the tool, in UTF-8 whatever the locale.
///
/// A reader that has gone away (`trelanctl ls | head -1`) is no fault: what remains is dropped
/// silently, and isClosed() tells. Any other fault of writing is told once on standard error and by
/// failed().
///
/// Once EndSignals are installed, a reader that takes nothing holds up the tool only until a signal
/// comes.
class Output
{
public:
    void line(const QString &text);
    void lines(const QStringList &texts);

    /// Prints "trelanctl: " and \a text on standard error. The caller has escaped what \a text
    /// quotes.
    static void error(const QString &text);

    /// Shows what is going on in place of the last progress, if standard error is a terminal. An
    /// empty \a text wipes it off.
    static void progress(const QString &text);

    /// Width of the terminal, or 0 if standard output is none.
    static int terminalWidth();
    static bool isTerminal();

    /// Whether output was lost although its reader was there.
    bool failed() const { return _failed; }

    /// Whether nothing more can be written, for whatever reason.
    bool isClosed() const { return _closed; }

private:
    bool _failed = false;
    bool _closed = false;
};

/// Reads standard input up to its end. Returns false if it holds more than \a limit bytes or cannot
/// be read; \a errorText says which.
bool readStandardInput(qint64 limit, QByteArray &bytes, QString &errorText);

} // namespace trelanctl
