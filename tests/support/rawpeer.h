#pragma once

#include <trelanbus.h>
#include <trelanframereader.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// A bus on a free port.
class TestBus : public bus::TrelanBus
{
public:
    explicit TestBus(bus::TrelanBusSettings settings = {});
};

/// \brief A client that sends any bytes. Its functions wait, at most 30 s. One thread may send
/// while another one receives.
///
/// Requests are written as "operation {'key': 'value'}"; a reply is told by its status, "code
/// description".
class RawPeer
{
public:
    /// A peer with a descriptor, but without a connection.
    RawPeer();
    /// A connected peer, registered as \a name unless that is empty.
    explicit RawPeer(const bus::TrelanBus &server, const QString &name = QString());
    explicit RawPeer(quint16 queryPort, const QString &name = QString());
    ~RawPeer();
    Q_DISABLE_COPY(RawPeer)

    bool connectTo(quint16 port);
    /// Address and port, by which the bus names this peer in its log.
    QString address() const;

    /// How the bus names the user of this process: "user alice".
    static QString owner();

    static QByteArray frame(const QByteArray &request);
    static QByteArray frame(const QString &operation, const QVariantMap &data);
    /// A request frame around a payload that inflates to \a json.
    static QByteArray jsonFrame(const QByteArray &json);

    /// Returns false if the other side does not take the bytes any more.
    bool send(const QByteArray &bytes);
    /// The status of the next reply; "none" if the connection ends instead.
    QString receive();
    /// The next message that the bus delivers; empty if something else comes.
    QVariantMap receiveDelivery();
    bool acknowledge(const QVariantMap &message);
    /// The content of the object that the next delivery tells of. Acknowledges the delivery.
    QVariantMap receiveObject();
    QString ask(const QByteArray &request);
    /// The envelope of the reply received last.
    QVariantMap envelope() const { return _envelope; }
    QVariantMap data() const { return _envelope.value(QStringLiteral("data")).toMap(); }
    /// The JSON text of the frame received last.
    QByteArray text() const { return qUncompress(QByteArray::fromBase64(_reader.payload())); }
    /// Whether bytes, or the end of the connection, arrive within this time.
    bool hasInput(int milliseconds);
    /// Whether anything is there behind the frame received last.
    bool hasMore() { return _reader.isInsideFrame() || hasInput(0); }
    /// Whether the other side ends the connection. Skips what it still sends.
    bool awaitEnd();
    /// Makes the end a reset, after which the system keeps nothing of the connection.
    void endWithReset();

private:
    bool receiveFrame();

    const int _socket;
    bus::TrelanFrameReader _reader {64 * 1024 * 1024};
    QVariantMap _envelope;
};

/// Both connections of a client that subscribes to \a wildcard. The constructor does not wait for
/// the bus, so that many clients can be made at once.
struct RawClient
{
    RawPeer query, messages;

    RawClient(quint16 queryPort, quint16 msgPort, const QString &name, const QString &wildcard);
    /// Whether the bus has accepted both connections and the subscription.
    bool isThere();
};
