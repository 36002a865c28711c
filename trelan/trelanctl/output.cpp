#include "output.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <sys/ioctl.h>
#include <unistd.h>

namespace trelanctl
{

namespace
{

const int DEFAULT_WIDTH = 80;
const int READ_CHUNK = 64 * 1024;

/// 0, or the error number of what stopped it.
int writeAll(int descriptor, const QByteArray &bytes)
{
    qint64 done = 0;
    while (done < bytes.size()) {
        const ssize_t count = ::write(descriptor, bytes.constData() + done, bytes.size() - done);
        if (count < 0 && errno != EINTR)
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
    // Sockets set this too, but not every command has one.
    std::signal(SIGPIPE, SIG_IGN);
    const int fault = writeAll(STDOUT_FILENO, text.toUtf8() + '\n');
    if (fault == 0)
        return;
    _closed = true;
    if (fault != EPIPE) {
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

int Output::terminalWidth()
{
    if (::isatty(STDOUT_FILENO) == 0)
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
