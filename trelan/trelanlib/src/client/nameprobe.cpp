#include "client/nameprobe.h"

#include <wirekeys.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QVariantMap>

#include <utility>

namespace bus
{

namespace
{

constexpr int MAX_NAME = 200; // so that what is appended still makes a client's name

} // namespace

NameProbe::NameProbe(const QString &clientName, QObject *parent)
    : QObject(parent)
    , _clientName(clientName)
    , _channel(this)
{
    connect(&_channel, &AskingChannel::connected, this, &NameProbe::onConnected);
    connect(&_channel, &AskingChannel::lost, this, [this] { finish(NoBus); });
}

void NameProbe::start(quint32 host, quint16 port, int patience, const QSet<QString> &own)
{
    _own = own;
    _isRunning = true;
    _channel.open(host, port, patience);
}

void NameProbe::stop()
{
    _isRunning = false;
    _channel.close();
}

void NameProbe::onConnected()
{
    const QString name = QStringLiteral("%1-%2-probe")
                             .arg(_clientName.left(MAX_NAME))
                             .arg(QCoreApplication::applicationPid());
    _channel.shakeHands(name, false, [](const AskingChannel::Reply &) {});
    _channel.ask(TrelanFrame::encode(TrelanFrame::Request,
                                     TrelanFrame::request(operations::CLIENTS, {}),
                                     TrelanTransport::Light),
                 [this](const AskingChannel::Reply &reply) {
                     if (reply.isThere)
                         judge(reply);
                 });
}

void NameProbe::judge(const AskingChannel::Reply &reply)
{
    if (!reply.isYes())
        return finish(Unknown);
    const QVariantList clients = reply.data.value(keys::CLIENTS).toList();
    for (const QVariant &entry : clients) {
        const QVariantMap client = entry.toMap();
        const QString address = client.value(keys::CLIENT_ADDRESS).toString();
        if (client.value(keys::CLIENT_NAME).toString() == _clientName &&
            !client.value(keys::CLIENT_CONNECTIONS).toList().isEmpty() && !_own.contains(address))
            return finish(Taken, address);
    }
    finish(Free);
}

void NameProbe::finish(Outcome outcome, const QString &address)
{
    if (!std::exchange(_isRunning, false))
        return;
    _channel.close();
    emit finished(outcome, address);
}

} // namespace bus
