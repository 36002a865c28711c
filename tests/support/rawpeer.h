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

/// \brief A client that sends any bytes. Blocking; every wait is bounded by 30 s. One thread may
/// send while another receives.
///
/// Requests are written as "operation {'key': 'value'}"; a reply is told by its status, "code
/// description".
class RawPeer
{
public:
    /// Has its descriptor, but no connection.
    RawPeer();
    /// Connected, and registered as \a name unless that is empty.
    explicit RawPeer(const bus::TrelanBus &server, const QString &name = QString());
    explicit RawPeer(quint16 queryPort, const QString &name = QString());
    ~RawPeer();
    Q_DISABLE_COPY(RawPeer)

    bool connectTo(quint16 port);
    /// Address and port, as the bus names this peer.
    QString address() const;

    static QByteArray frame(const QByteArray &request);
    static QByteArray frame(const QString &operation, const QVariantMap &data);
    /// A request frame around a payload that inflates to \a json.
    static QByteArray jsonFrame(const QByteArray &json);

    /// False if the other side does not take it any more.
    bool send(const QByteArray &bytes);
    /// Status of the next reply; "none" if the connection ends instead.
    QString receive();
    /// The next message that the bus delivers; empty if something else comes.
    QVariantMap receiveDelivery();
    bool acknowledge(const QVariantMap &message);
    /// The same; the content of the object that it tells of.
    QVariantMap receiveObject();
    QString ask(const QByteArray &request);
    /// The envelope of the reply received last.
    QVariantMap envelope() const { return _envelope; }
    QVariantMap data() const { return _envelope.value(QStringLiteral("data")).toMap(); }
    /// Whether anything, the end included, is there within this time.
    bool hasInput(int milliseconds);
    /// Whether the other side ends the connection; what it still sends is skipped.
    bool awaitEnd();
    /// The end will be a reset, which leaves nothing of the connection in the system.
    void endWithReset();

private:
    bool receiveFrame();

    const int _socket;
    bus::TrelanFrameReader _reader {64 * 1024 * 1024};
    QVariantMap _envelope;
};

/// Both connections of a client that takes in \a wildcard. The constructor does not wait for the
/// bus, so that many can be made at once.
struct RawClient
{
    RawPeer query, messages;

    RawClient(quint16 queryPort, quint16 msgPort, const QString &name, const QString &wildcard);
    /// Whether the bus has accepted all of it.
    bool isThere();
};
