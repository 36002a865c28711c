#include "trelanchannelsettings.h"

#include "trelanmessagereciever.h"
#include "trelanqueryhandler.h"

#include <QtCore/QSharedData>
#include <QtNetwork/QHostAddress>

namespace bus
{

class TrelanChannelSettings::Data : public QSharedData
{
public:
    TrelanTransport::Mode _mode = TrelanTransport::Paced;
    TrelanTransport::Coding _coding = TrelanTransport::Classic;
    qint64 _maxPayload = 16 * 1024 * 1024;
    int _patience = 30000;
    quint32 _host = QHostAddress(QHostAddress::LocalHost).toIPv4Address();
    quint16 _queryPort = TrelanQueryHandler::DEFAULT_PORT;
    quint16 _messagePort = TrelanMessageReciever::DEFAULT_PORT;
    int _firstPause = 0;
    int _maxPause = 0;
};

TrelanChannelSettings::TrelanChannelSettings()
    : d(new Data)
{}

TrelanChannelSettings::TrelanChannelSettings(const TrelanChannelSettings &other) = default;
TrelanChannelSettings &
TrelanChannelSettings::operator=(const TrelanChannelSettings &other) = default;
TrelanChannelSettings::~TrelanChannelSettings() = default;

TrelanChannelSettings TrelanChannelSettings::ofProcess()
{
    return TrelanChannelSettings()
        .setMode(TrelanTransport::mode())
        .setCoding(TrelanTransport::coding())
        .setMaxPayload(TrelanTransport::maxPayload())
        .setPatience(TrelanTransport::patience())
        .setHost(TrelanQueryHandler::queryHost())
        .setPorts(TrelanMessageReciever::msgPort(), TrelanQueryHandler::queryPort());
}

TrelanTransport::Mode TrelanChannelSettings::mode() const
{
    return d->_mode;
}

TrelanChannelSettings &TrelanChannelSettings::setMode(TrelanTransport::Mode mode)
{
    d->_mode = mode;
    return *this;
}

TrelanTransport::Coding TrelanChannelSettings::coding() const
{
    return d->_coding;
}

TrelanChannelSettings &TrelanChannelSettings::setCoding(TrelanTransport::Coding coding)
{
    d->_coding = coding;
    return *this;
}

qint64 TrelanChannelSettings::maxPayload() const
{
    return d->_maxPayload;
}

TrelanChannelSettings &TrelanChannelSettings::setMaxPayload(qint64 bytes)
{
    d->_maxPayload = qMax<qint64>(bytes, 1);
    return *this;
}

int TrelanChannelSettings::patience() const
{
    return d->_patience;
}

TrelanChannelSettings &TrelanChannelSettings::setPatience(int milliseconds)
{
    d->_patience = qMax(milliseconds, 1);
    return *this;
}

quint32 TrelanChannelSettings::host() const
{
    return d->_host;
}

TrelanChannelSettings &TrelanChannelSettings::setHost(quint32 host)
{
    d->_host = host;
    return *this;
}

quint16 TrelanChannelSettings::queryPort() const
{
    return d->_queryPort;
}

quint16 TrelanChannelSettings::messagePort() const
{
    return d->_messagePort;
}

TrelanChannelSettings &TrelanChannelSettings::setPorts(quint16 messagePort, quint16 queryPort)
{
    d->_messagePort = messagePort;
    d->_queryPort = queryPort;
    return *this;
}

TrelanChannelSettings &TrelanChannelSettings::setPauses(int firstPause, int maxPause)
{
    d->_firstPause = qMax(firstPause, 0);
    d->_maxPause = qMax(maxPause, d->_firstPause);
    return *this;
}

int TrelanChannelSettings::firstPause() const
{
    return d->_firstPause;
}

int TrelanChannelSettings::maxPause() const
{
    return d->_maxPause;
}

} // namespace bus
