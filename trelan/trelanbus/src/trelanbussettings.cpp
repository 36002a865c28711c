#include "trelanbussettings.h"

#include <QtCore/QSharedData>

#include <tuple>

namespace bus
{

namespace
{

constexpr qint64 MIB = 1024 * 1024;
// A frame is one block of memory, which is smaller than 2 GiB.
constexpr qint64 MAX_FRAME = 1024 * MIB;

} // namespace

class TrelanBusSettings::Private : public QSharedData
{
public:
    QHostAddress host = QHostAddress(QHostAddress::LocalHost);
    quint16 queryPort = 43535;
    quint16 msgPort = 43537;
    int queryDescriptor = -1;
    int msgDescriptor = -1;
    Admission admission = Users;
    QString dataFolder;
    bool requireStorage = false;
    int maxObjects = 100000;
    qint64 maxObjectBytes = 256 * MIB;
    qint64 maxFrameSize = 16 * MIB;
    qint64 maxInflatedSize = 64 * MIB;
    int maxConnections = 1024;
    int maxSubscriptions = 10000;
    int maxClientMessages = 1000;
    qint64 maxClientBytes = 16 * MIB;
    int maxQueues = 10000;
    qint64 maxQueuedBytes = 256 * MIB;
    int conflateAbove = 200;
    int maxClientNames = 100000;
    int messageLifetime = 60 * 60 * 1000;
    TrelanTransport::Coding coding = TrelanTransport::coding();
    int handshakeTimeout = 30000;
    int stallTimeout = 30000;
    int discardTime = 2000;

    auto all() const
    {
        return std::tie(host, queryPort, msgPort, queryDescriptor, msgDescriptor, admission,
                        dataFolder, requireStorage, maxObjects, maxObjectBytes, maxFrameSize,
                        maxInflatedSize, maxConnections, maxSubscriptions, maxClientMessages,
                        maxClientBytes, maxQueues, maxQueuedBytes, conflateAbove, maxClientNames,
                        messageLifetime, coding, handshakeTimeout, stallTimeout, discardTime);
    }
};

TrelanBusSettings::TrelanBusSettings()
    : _d(new Private)
{}

TrelanBusSettings::TrelanBusSettings(const TrelanBusSettings &other) = default;
TrelanBusSettings::~TrelanBusSettings() = default;
TrelanBusSettings &TrelanBusSettings::operator=(const TrelanBusSettings &other) = default;

bool TrelanBusSettings::operator==(const TrelanBusSettings &other) const
{
    return _d == other._d || _d->all() == other._d->all();
}

bool TrelanBusSettings::operator!=(const TrelanBusSettings &other) const
{
    return !(*this == other);
}

QHostAddress TrelanBusSettings::host() const
{
    return _d->host;
}

void TrelanBusSettings::setHost(const QHostAddress &host)
{
    _d->host = host;
}

quint16 TrelanBusSettings::queryPort() const
{
    return _d->queryPort;
}

void TrelanBusSettings::setQueryPort(quint16 port)
{
    _d->queryPort = port;
}

quint16 TrelanBusSettings::msgPort() const
{
    return _d->msgPort;
}

void TrelanBusSettings::setMsgPort(quint16 port)
{
    _d->msgPort = port;
}

int TrelanBusSettings::queryDescriptor() const
{
    return _d->queryDescriptor;
}

void TrelanBusSettings::setQueryDescriptor(int descriptor)
{
    _d->queryDescriptor = qMax(descriptor, -1);
}

int TrelanBusSettings::msgDescriptor() const
{
    return _d->msgDescriptor;
}

void TrelanBusSettings::setMsgDescriptor(int descriptor)
{
    _d->msgDescriptor = qMax(descriptor, -1);
}

TrelanBusSettings::Admission TrelanBusSettings::admission() const
{
    return _d->admission;
}

void TrelanBusSettings::setAdmission(Admission admission)
{
    _d->admission = admission;
}

QString TrelanBusSettings::dataFolder() const
{
    return _d->dataFolder;
}

void TrelanBusSettings::setDataFolder(const QString &folder)
{
    _d->dataFolder = folder;
}

bool TrelanBusSettings::requireStorage() const
{
    return _d->requireStorage;
}

void TrelanBusSettings::setRequireStorage(bool require)
{
    _d->requireStorage = require;
}

int TrelanBusSettings::maxObjects() const
{
    return _d->maxObjects;
}

void TrelanBusSettings::setMaxObjects(int objects)
{
    _d->maxObjects = qMax(objects, 1);
}

qint64 TrelanBusSettings::maxObjectBytes() const
{
    return _d->maxObjectBytes;
}

void TrelanBusSettings::setMaxObjectBytes(qint64 bytes)
{
    _d->maxObjectBytes = qMax<qint64>(bytes, 1);
}

qint64 TrelanBusSettings::maxFrameSize() const
{
    return _d->maxFrameSize;
}

void TrelanBusSettings::setMaxFrameSize(qint64 bytes)
{
    _d->maxFrameSize = qBound<qint64>(1, bytes, MAX_FRAME);
}

qint64 TrelanBusSettings::maxInflatedSize() const
{
    return _d->maxInflatedSize;
}

void TrelanBusSettings::setMaxInflatedSize(qint64 bytes)
{
    _d->maxInflatedSize = qBound<qint64>(1, bytes, MAX_FRAME);
}

int TrelanBusSettings::maxConnections() const
{
    return _d->maxConnections;
}

void TrelanBusSettings::setMaxConnections(int connections)
{
    _d->maxConnections = qMax(connections, 1);
}

int TrelanBusSettings::maxSubscriptions() const
{
    return _d->maxSubscriptions;
}

void TrelanBusSettings::setMaxSubscriptions(int wildcards)
{
    _d->maxSubscriptions = qMax(wildcards, 1);
}

int TrelanBusSettings::maxClientMessages() const
{
    return _d->maxClientMessages;
}

void TrelanBusSettings::setMaxClientMessages(int messages)
{
    _d->maxClientMessages = qMax(messages, 1);
}

qint64 TrelanBusSettings::maxClientBytes() const
{
    return _d->maxClientBytes;
}

void TrelanBusSettings::setMaxClientBytes(qint64 bytes)
{
    _d->maxClientBytes = qMax<qint64>(bytes, 1);
}

int TrelanBusSettings::maxQueues() const
{
    return _d->maxQueues;
}

void TrelanBusSettings::setMaxQueues(int queues)
{
    _d->maxQueues = qMax(queues, 1);
}

qint64 TrelanBusSettings::maxQueuedBytes() const
{
    return _d->maxQueuedBytes;
}

void TrelanBusSettings::setMaxQueuedBytes(qint64 bytes)
{
    _d->maxQueuedBytes = qMax<qint64>(bytes, 1);
}

int TrelanBusSettings::conflateAbove() const
{
    return _d->conflateAbove;
}

void TrelanBusSettings::setConflateAbove(int messages)
{
    _d->conflateAbove = qMax(messages, 1);
}

int TrelanBusSettings::maxClientNames() const
{
    return _d->maxClientNames;
}

void TrelanBusSettings::setMaxClientNames(int objects)
{
    _d->maxClientNames = qMax(objects, 1);
}

int TrelanBusSettings::messageLifetime() const
{
    return _d->messageLifetime;
}

void TrelanBusSettings::setMessageLifetime(int milliseconds)
{
    _d->messageLifetime = qMax(milliseconds, 1);
}

TrelanTransport::Coding TrelanBusSettings::coding() const
{
    return _d->coding;
}

void TrelanBusSettings::setCoding(TrelanTransport::Coding coding)
{
    _d->coding = coding;
}

int TrelanBusSettings::handshakeTimeout() const
{
    return _d->handshakeTimeout;
}

void TrelanBusSettings::setHandshakeTimeout(int milliseconds)
{
    _d->handshakeTimeout = qMax(milliseconds, 1);
}

int TrelanBusSettings::stallTimeout() const
{
    return _d->stallTimeout;
}

void TrelanBusSettings::setStallTimeout(int milliseconds)
{
    _d->stallTimeout = qMax(milliseconds, 1);
}

int TrelanBusSettings::discardTime() const
{
    return _d->discardTime;
}

void TrelanBusSettings::setDiscardTime(int milliseconds)
{
    _d->discardTime = qMax(milliseconds, 1);
}

} // namespace bus
