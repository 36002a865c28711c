#pragma once

#include "loopbacksocket.h"

#include <QtCore/QByteArray>

#include <functional>

/// \brief A connection to nats-server: its protocol is lines of text, with bytes behind some.
///
/// Written for the measurement, since it is faster than a client library with threads of its own.
class NatsConnection
{
public:
    using Take = std::function<void(const QByteArray &payload)>;

    bool open(quint16 port);
    int descriptor() const { return _socket.descriptor(); }

    /// What to send for a message. \a answers is the subject of its answer, with a stream.
    static QByteArray message(const QByteArray &subject, const QByteArray &payload,
                              const QByteArray &answers = {});

    bool send(const QByteArray &bytes);
    /// Sends and waits until the server has worked through all that was sent.
    bool sendAndFlush(const QByteArray &bytes);
    bool subscribe(const QByteArray &subject);

    /// Takes what is there; \a take gets the payloads, valid only inside of it.
    bool read(const Take &take);

private:
    bool takeLine(int &at, const Take &take);

    LoopbackSocket _socket;
    QByteArray _bytes;
    int _pongs = 0;
};
