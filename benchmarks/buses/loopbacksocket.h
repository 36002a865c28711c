#pragma once

#include <QtCore/QtGlobal>

#include <sys/types.h>

/// \brief A blocking TCP connection on 127.0.0.1 that sends at once, closed with this object.
class LoopbackSocket
{
public:
    LoopbackSocket() = default;
    explicit LoopbackSocket(int descriptor);
    ~LoopbackSocket();
    LoopbackSocket(LoopbackSocket &&other) noexcept;
    LoopbackSocket &operator=(LoopbackSocket &&other) noexcept;
    Q_DISABLE_COPY(LoopbackSocket)

    /// Waits for 10 s at most for anything to read, or to be taken.
    bool open(quint16 port);
    /// At any free port, which port() tells.
    bool listen();
    /// Waits for a connection to a socket that listens.
    LoopbackSocket accept() const;

    quint16 port() const;
    int descriptor() const { return _descriptor; }

    /// Until all is sent.
    bool write(const char *data, size_t size) const;
    /// What is there, at least one byte; 0 or less at the end.
    ssize_t read(char *data, size_t size) const;
    /// Until there are so many bytes.
    bool readAll(char *data, size_t size) const;

private:
    void sendAtOnce() const;

    int _descriptor = -1;
};
