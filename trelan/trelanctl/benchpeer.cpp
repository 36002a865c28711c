#include "benchpeer.h"

#include "terminaltext.h"

#include <trelanerror.h>

#include <QtNetwork/QHostAddress>

namespace trelanctl
{

using bus::TrelanFrame;
using bus::TrelanFrameReader;

namespace
{

const int WAIT_MS = 10000;
const qint64 MAX_PAYLOAD = 16 * 1024 * 1024;

} // namespace

BenchPeer::BenchPeer(const Arguments &arguments, quint16 port, const QString &name)
    : _arguments(arguments)
    , _reader(MAX_PAYLOAD)
{
    _socket.connectToHost(QHostAddress(bus::TrelanQueryHandler::queryHost()), port);
    if (!_socket.waitForConnected(WAIT_MS)) {
        fail(NoBus,
             QStringLiteral("no connection to port %1: %2").arg(port).arg(_socket.errorString()));
        return;
    }
    _socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    request(requestFrame(QStringLiteral("handshake"), {{QStringLiteral("name"), name}}));
}

QByteArray BenchPeer::requestFrame(const QString &operation, const QVariantMap &data)
{
    return TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(operation, data));
}

bool BenchPeer::request(const QByteArray &frame)
{
    _socket.write(frame);
    if (!awaitFrame(TrelanFrame::Reply))
        return false;
    const QVariantMap result = TrelanFrame::decodePayload(_reader.payload())
                                   .envelope.value(QStringLiteral("result"))
                                   .toMap();
    const auto code = bus::TrelanError::Error(TrelanFrame::replyCode(result));
    const bus::TrelanError error(code, result.value(QStringLiteral("description")).toString());
    return code == bus::TrelanError::NoError || fail(Failed, refusal(_arguments, error).text);
}

bool BenchPeer::awaitDelivery()
{
    return awaitFrame(TrelanFrame::Request);
}

bool BenchPeer::acknowledge()
{
    const QVariantMap delivery = TrelanFrame::decodePayload(_reader.payload())
                                     .envelope.value(QStringLiteral("data"))
                                     .toMap();
    const QVariantMap settled = {{QStringLiteral("sender"), delivery.value(QStringLiteral("s"))},
                                 {QStringLiteral("reciever"), delivery.value(QStringLiteral("r"))},
                                 {QStringLiteral("uid"), delivery.value(QStringLiteral("uid"))}};
    _socket.write(
        TrelanFrame::encode(TrelanFrame::Reply, TrelanFrame::reply(QStringLiteral("sendMessage"),
                                                                   bus::TrelanError(), settled)));
    while (_fault.code == Done && _socket.bytesToWrite() > 0) {
        if (!_socket.waitForBytesWritten(WAIT_MS))
            fail(NoBus, _socket.errorString());
    }
    return _fault.code == Done;
}

bool BenchPeer::awaitFrame(TrelanFrame::Kind kind)
{
    while (_fault.code == Done) {
        const TrelanFrameReader::Status status = _reader.next();
        if (status == TrelanFrameReader::FrameReady)
            return _reader.kind() == kind || fail(NoBus, QStringLiteral("the bus is out of step"));
        if (status != TrelanFrameReader::NeedMoreData)
            return fail(NoBus, terminal::escaped(_reader.faultText()));
        if (!_socket.waitForReadyRead(WAIT_MS))
            return fail(NoBus, _socket.errorString());
        _reader.feed(_socket.readAll());
    }
    return false;
}

bool BenchPeer::fail(ExitCode code, const QString &text)
{
    if (_fault.code == Done)
        _fault = {code, code == NoBus ? QStringLiteral("no bus: ") + text : text};
    return false;
}

} // namespace trelanctl
