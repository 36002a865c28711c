#include "trelanclientsettings.h"

#include "trelanmessagereciever.h"
#include "trelanqueryhandler.h"

#include <QtCore/QSharedData>

namespace bus
{

class TrelanClientSettings::Data : public QSharedData
{
public:
    QString _host = QStringLiteral("127.0.0.1");
    quint16 _queryPort = TrelanQueryHandler::DEFAULT_PORT;
    quint16 _messagePort = TrelanMessageReciever::DEFAULT_PORT;
    bool _keep = false;
    int _maxOperations = 10000;
    qint64 _maxBytes = 16 * 1024 * 1024;
    int _patience = 10000;
    int _maxPause = 5000;
};

TrelanClientSettings::TrelanClientSettings()
    : d(new Data)
{}
TrelanClientSettings::TrelanClientSettings(const TrelanClientSettings &other) = default;
TrelanClientSettings &TrelanClientSettings::operator=(const TrelanClientSettings &other) = default;
TrelanClientSettings::~TrelanClientSettings() = default;

QString TrelanClientSettings::host() const
{
    return d->_host;
}

TrelanClientSettings &TrelanClientSettings::setHost(const QString &host)
{
    d->_host = host;
    return *this;
}

quint16 TrelanClientSettings::queryPort() const
{
    return d->_queryPort;
}

quint16 TrelanClientSettings::messagePort() const
{
    return d->_messagePort;
}

TrelanClientSettings &TrelanClientSettings::setPorts(quint16 messagePort, quint16 queryPort)
{
    d->_messagePort = messagePort;
    d->_queryPort = queryPort;
    return *this;
}

bool TrelanClientSettings::keep() const
{
    return d->_keep;
}

TrelanClientSettings &TrelanClientSettings::setKeep(bool keep)
{
    d->_keep = keep;
    return *this;
}

int TrelanClientSettings::maxOperations() const
{
    return d->_maxOperations;
}

qint64 TrelanClientSettings::maxBytes() const
{
    return d->_maxBytes;
}

TrelanClientSettings &TrelanClientSettings::setLimits(int maxOperations, qint64 maxBytes)
{
    d->_maxOperations = qMax(maxOperations, 1);
    d->_maxBytes = qMax<qint64>(maxBytes, 1);
    return *this;
}

int TrelanClientSettings::patience() const
{
    return d->_patience;
}

TrelanClientSettings &TrelanClientSettings::setPatience(int milliseconds)
{
    d->_patience = qMax(milliseconds, 1);
    return *this;
}

int TrelanClientSettings::maxPause() const
{
    return d->_maxPause;
}

TrelanClientSettings &TrelanClientSettings::setMaxPause(int milliseconds)
{
    d->_maxPause = qMax(milliseconds, 1);
    return *this;
}

} // namespace bus
