#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QVariantMap>

#include <functional>
#include <list>
#include <thread>

/// A frame as the peer received it, taken apart without the library's own codec.
struct ScriptedFrame
{
    QByteArray raw, json; ///< the frame as it came, and the inflated envelope
    QString operation;
    QVariantMap data, result;
};

class ScriptedServer;

/// \brief One connection, as its script sees it. A function that returns bool waits until it is
/// done, and returns false when the client is gone or the server ends.
class ScriptedPeer
{
public:
    const int number;    ///< of the connection; the first one is 0
    ScriptedFrame frame; ///< the frame that was read last

    /// Reads one whole frame and adds it to the server's frames.
    bool readFrame();
    /// Receives bytes, and leaves them to readFrame().
    bool read(int atLeast);
    bool send(const QByteArray &bytes);
    /// Waits for one ScriptedServer::release().
    bool awaitRelease();
    /// Discards what comes until the client ends the connection.
    void awaitEnd();
    /// Ends the connection, in order or with a reset.
    void close(bool reset = false);

private:
    friend class ScriptedServer;
    ScriptedPeer(ScriptedServer *server, int socket, int connection);
    bool wait(int descriptor, short events) const;

    ScriptedServer *_server;
    int _socket;
    QByteArray _buffer;
};

/// \brief A bus that does exactly what a test tells it, faults included: a TCP server on an
/// ephemeral port of 127.0.0.1 that plays a script on every connection, each in its own thread, and
/// closes the connection when the script returns.
class ScriptedServer
{
public:
    using Script = std::function<void(ScriptedPeer &)>;

    explicit ScriptedServer(const Script &script);
    /// Ends all scripts at their next wait.
    ~ScriptedServer();

    quint16 port() const { return _port; }
    /// All frames received so far, of all connections.
    QList<ScriptedFrame> frames() const;
    /// Lets one awaitRelease() return; from any thread.
    void release();

    static QByteArray payload(const QByteArray &json);
    static QByteArray frame(const QByteArray &header, const QByteArray &payload);
    /// A reply frame; \a data is JSON.
    static QByteArray reply(const QByteArray &operation, int code = 0,
                            const QByteArray &description = {}, const QByteArray &data = "{}");

private:
    friend class ScriptedPeer;
    void acceptAll();

    const Script _script;
    const int _listener, _stop, _released;
    quint16 _port = 0;
    mutable QMutex _mutex; // guards the frames and the threads
    QList<ScriptedFrame> _frames;
    std::list<std::thread> _threads; // the first one accepts, each other one serves a connection
};
