#pragma once

#include <trelanframereader.h>

#include <QtCore/QThread>

#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

/// \brief Takes the pauses out of the reader of the message channel. One source of a program may
/// include this.
///
/// The reader pauses after every piece it reads, and then waits up to 100 ms for more, even if the
/// frame is complete. The pauses go, and so do the waits after a complete frame, which this class
/// recognises by following the bytes of the socket. A wait for the rest of a frame stays.
struct PacedReader
{
    static inline thread_local int _descriptor = -1; ///< the socket of the reader in this thread
    static inline thread_local bus::TrelanFrameReader *_stream = nullptr;
};

// These functions replace the system's and Qt's, so that they cannot be inline.
// NOLINTBEGIN(misc-definitions-in-headers)
void QThread::msleep(unsigned long)
{
    QThread::yieldCurrentThread();
}

extern "C" Q_DECL_EXPORT ssize_t read(int descriptor, void *bytes, size_t size)
{
    static const auto _next =
        reinterpret_cast<ssize_t (*)(int, void *, size_t)>(::dlsym(RTLD_NEXT, "read"));
    const ssize_t count = _next(descriptor, bytes, size);
    if (PacedReader::_stream && descriptor == PacedReader::_descriptor && count > 0) {
        PacedReader::_stream->feed(QByteArray(static_cast<const char *>(bytes), int(count)));
        while (PacedReader::_stream->next() == bus::TrelanFrameReader::FrameReady) {}
    }
    return count;
}

extern "C" Q_DECL_EXPORT int ppoll(pollfd *fds, nfds_t number, const timespec *timeout,
                                   const sigset_t *mask)
{
    static const auto _next =
        reinterpret_cast<int (*)(pollfd *, nfds_t, const timespec *, const sigset_t *)>(
            ::dlsym(RTLD_NEXT, "ppoll"));
    const timespec none {0, 0};
    const bool skipped = PacedReader::_stream && timeout && fds[0].fd == PacedReader::_descriptor &&
                         (fds[0].events & POLLOUT) == 0 && !PacedReader::_stream->isInsideFrame();
    return _next(fds, number, skipped ? &none : timeout, mask);
}
// NOLINTEND(misc-definitions-in-headers)
