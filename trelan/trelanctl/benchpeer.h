#pragma once

#include <trelanframereader.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtNetwork/QTcpSocket>

namespace trelanctl
{

/// \brief One connection to the bus that does not pace itself as the client library does, so that
/// what is measured with it is the bus.
///
/// Blocking. After a fault every call fails, and errorText() says what it was.
class BenchPeer
{
public:
    /// Connected and registered, unless there is a fault.
    BenchPeer(quint32 host, quint16 port, const QString &name);

    static QByteArray requestFrame(const QString &operation, const QVariantMap &data);

    /// Sends a request and waits until the bus has answered it with code 0.
    bool request(const QByteArray &frame);
    /// Waits for a delivery; acknowledge() it before the next one.
    bool awaitDelivery();
    bool acknowledge();

    QString errorText() const { return _errorText; }

private:
    bool awaitFrame(bus::TrelanFrame::Kind kind);
    bool fail(const QString &text);

    QTcpSocket _socket;
    bus::TrelanFrameReader _reader;
    QString _errorText;
};

} // namespace trelanctl
