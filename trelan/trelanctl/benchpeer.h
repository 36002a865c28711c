#pragma once

#include "busaccess.h"

#include <trelanframereader.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtNetwork/QTcpSocket>

namespace trelanctl
{

/// \brief One connection to the bus that does not pace itself as the client library does, so that
/// a measurement with it is one of the bus.
///
/// All methods block. After a fault every call fails, and fault() says what it was.
class BenchPeer
{
public:
    /// Connected and registered, unless there is a fault. To be made after locateBus().
    BenchPeer(const Arguments &arguments, quint16 port, const QString &name);

    static QByteArray requestFrame(const QString &operation, const QVariantMap &data);

    /// Sends a request and waits until the bus has answered it with code 0.
    bool request(const QByteArray &frame);
    /// Waits for a delivery, which has to be acknowledged before the next one.
    bool awaitDelivery();
    bool acknowledge();

    Outcome fault() const { return _fault; }

private:
    bool awaitFrame(bus::TrelanFrame::Kind kind);
    bool fail(ExitCode code, const QString &text);

    const Arguments _arguments;
    QTcpSocket _socket;
    bus::TrelanFrameReader _reader;
    Outcome _fault;
};

} // namespace trelanctl
