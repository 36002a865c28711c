#pragma once

#include <trelanframereader.h>

#include <QtCore/QThread>

#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

/// \brief Takes the pauses out of the reader of the message channel, for the program that includes
/// this, once.
///
/// The reader pauses after every piece it reads, and then waits up to 100 ms for more, even if the
/// frame is complete: only that wait is skipped, which is known by following the bytes of its
/// socket. A wait for the rest of a frame stays what it is.
struct PacedReader
{
    static inline thread_local int descriptor = -1; ///< of the thread's reader
    static inline thread_local bus::TrelanFrameReader *stream = nullptr;
};

void QThread::msleep(unsigned long)
{
    QThread::yieldCurrentThread();
}

extern "C" Q_DECL_EXPORT ssize_t read(int descriptor, void *bytes, size_t size)
{
    static const auto next =
        reinterpret_cast<ssize_t (*)(int, void *, size_t)>(::dlsym(RTLD_NEXT, "read"));
    const ssize_t count = next(descriptor, bytes, size);
    if (PacedReader::stream && descriptor == PacedReader::descriptor && count > 0) {
        PacedReader::stream->feed(QByteArray(static_cast<const char *>(bytes), int(count)));
        while (PacedReader::stream->next() == bus::TrelanFrameReader::FrameReady) {}
    }
    return count;
}

extern "C" Q_DECL_EXPORT int ppoll(pollfd *fds, nfds_t number, const timespec *timeout,
                                   const sigset_t *mask)
{
    static const auto next =
        reinterpret_cast<int (*)(pollfd *, nfds_t, const timespec *, const sigset_t *)>(
            ::dlsym(RTLD_NEXT, "ppoll"));
    const timespec none {0, 0};
    const bool skipped = PacedReader::stream && timeout && fds[0].fd == PacedReader::descriptor &&
                         (fds[0].events & POLLOUT) == 0 && !PacedReader::stream->isInsideFrame();
    return next(fds, number, skipped ? &none : timeout, mask);
}
