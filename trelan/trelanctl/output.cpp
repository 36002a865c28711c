#include "output.h"

#include "endsignals.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace trelanctl
{

namespace
{

const int DEFAULT_WIDTH = 80;
const int READ_CHUNK = 64 * 1024;

/// Waits until \a descriptor takes bytes. Returns false if a signal asks for the end first.
bool awaitRoom(int descriptor)
{
    for (;;) {
        std::array<pollfd, 2> polled {
            {{descriptor, POLLOUT, 0}, {EndSignals::descriptor(), POLLIN, 0}}};
        if (::poll(polled.data(), polled.size(), -1) > 0)
            return polled[0].revents != 0; // also after a fault, which the write reports
    }
}

/// Returns 0, or the number of the error that kept it from writing all.
int writeAll(int descriptor, const QByteArray &bytes)
{
    qint64 done = 0;
    while (done < bytes.size()) {
        if (!awaitRoom(descriptor))
            return EINTR;
        // A larger piece than there is room for would make the write wait, and no signal would end
        // that.
        const auto count = ::write(descriptor, bytes.constData() + done,
                                   size_t(qMin<qint64>(bytes.size() - done, PIPE_BUF)));
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            return errno;
        done += qMax<ssize_t>(0, count);
    }
    return 0;
}

} // namespace

void Output::line(const QString &text)
{
    if (_closed)
        return;
    // Qt ignores the signal once it has a socket, but some commands have none.
    std::signal(SIGPIPE, SIG_IGN);
    const int fault = writeAll(STDOUT_FILENO, text.toUtf8() + '\n');
    if (fault == 0)
        return;
    _closed = true;
    if (fault != EPIPE && fault != EINTR) {
        _failed = true;
        error(QStringLiteral("cannot write the output: %1")
                  .arg(QString::fromLocal8Bit(std::strerror(fault))));
    }
}

void Output::lines(const QStringList &texts)
{
    for (const QString &text : texts)
        line(text);
}

void Output::error(const QString &text)
{
    writeAll(STDERR_FILENO, "trelanctl: " + text.toUtf8() + '\n');
}

void Output::progress(const QString &text)
{
    if (::isatty(STDERR_FILENO) != 0)
        writeAll(STDERR_FILENO, "\r\x1b[K" + text.toUtf8());
}

bool Output::isTerminal()
{
    return ::isatty(STDOUT_FILENO) != 0;
}

int Output::terminalWidth()
{
    if (!isTerminal())
        return 0;
    winsize size = {};
    const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : DEFAULT_WIDTH;
}

bool readStandardInput(qint64 limit, QByteArray &bytes, QString &errorText)
{
    QByteArray chunk(READ_CHUNK, '\0');
    for (;;) {
        const ssize_t count = ::read(STDIN_FILENO, chunk.data(), size_t(chunk.size()));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            errorText = QStringLiteral("cannot read standard input: %1")
                            .arg(QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        if (count == 0)
            return true;
        bytes.append(chunk.constData(), int(count));
        if (bytes.size() > limit) {
            errorText = QStringLiteral("standard input holds more than the %1 bytes that are taken")
                            .arg(limit);
            return false;
        }
    }
}

} // namespace trelanctl
