#include "trelanlogcreator.h"

#include "trelancommand.h"
#include "trelantransport.h"
#include "values/uids.h"

#include <QtCore/QMutexLocker>
#include <QtCore/QWaitCondition>

namespace bus
{

namespace
{

constexpr int MAX_UNSUPPRESSED_INTERVAL = 1000;
constexpr double INTERVAL_GROWTH = 1.3;
constexpr int MSECS_PER_DAY = 24 * 60 * 60 * 1000;

// Set while this thread connects an emitter: Qt warns about a wrong method then, and that line
// would come back here for ever.
thread_local bool _connecting = false;

// Counts the threads that are connecting an emitter to a receiver, which must not be destroyed
// meanwhile. TrelanLogCreator::_mutex guards the counter, and is not held while a thread connects:
// what Qt may log then can wait for another thread that is asking for the mutex.
int _connects = 0;
QWaitCondition _connected;

/// Waits until no thread connects to the old receiver any more. The caller holds the mutex, and has
/// replaced the receiver.
void awaitConnects(QMutex *mutex)
{
    while (_connects > (_connecting ? 1 : 0))
        _connected.wait(mutex);
}

/// Milliseconds since \a time of day, which may lie before the last midnight.
int elapsedSince(const QTime &time)
{
    const int elapsed = time.msecsTo(QTime::currentTime());
    return elapsed < 0 ? elapsed + MSECS_PER_DAY : elapsed;
}

QString prefixOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
    case QtInfoMsg:
        return QStringLiteral("INFO");
    case QtWarningMsg:
        return QStringLiteral("WARNING");
    case QtCriticalMsg:
    case QtFatalMsg:
        return QStringLiteral("ERROR");
    }
    return {};
}

} // namespace

QMutex TrelanLogCreator::_mutex;
QPointer<QObject> TrelanLogCreator::_sender;
QByteArray TrelanLogCreator::_method;
QString TrelanLogCreator::_baseClientName;
int TrelanLogCreator::_baseRepeatInterval = 0;
int TrelanLogCreator::_repeatInterval = 0;
QString TrelanLogCreator::_lastMessage;
QTime TrelanLogCreator::_lastMessageTime;

QLoggingCategory &LOGGER() // NOLINT(readability-identifier-naming)
{
    static QLoggingCategory _category("logger");
    return _category;
}

class TrelanLogCreator::Private
{
public:
    QString _clientName;
};

TrelanLogCreator::TrelanLogCreator(const QString &clientName, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    d->_clientName = clientName;
}

TrelanLogCreator::~TrelanLogCreator() = default;

void TrelanLogCreator::init(const QPointer<QObject> &receiver, const QByteArray &method,
                            const QString &clientName, int repeatInterval)
{
    const QMutexLocker locker(&_mutex);
    const bool complete = receiver && !method.isEmpty();
    _sender = complete ? receiver : nullptr;
    _method = complete ? method : QByteArray();
    _baseRepeatInterval = _repeatInterval = qMin(repeatInterval, MAX_REPEAT_INTERVAL);
    _baseClientName = clientName;
    _lastMessage.clear();
    _lastMessageTime = QTime();
    awaitConnects(&_mutex);
}

void TrelanLogCreator::release()
{
    init(nullptr, {}, {}, 0);
}

QPointer<TrelanLogCreator> TrelanLogCreator::createCreator()
{
    QObject *sender = nullptr;
    QByteArray method;
    QString clientName;
    {
        const QMutexLocker locker(&_mutex);
        if (!_sender || _method.isEmpty() || _baseClientName.isEmpty() || _connecting)
            return {};
        sender = _sender;
        method = _method;
        clientName = _baseClientName;
        ++_connects;
    }
    auto *creator = new TrelanLogCreator(clientName, nullptr);
    _connecting = true;
    connect(creator, SIGNAL(sendMessage(TrelanMessage)), sender, method.constData());
    _connecting = false;

    const QMutexLocker locker(&_mutex);
    --_connects;
    _connected.wakeAll();
    return creator;
}

bool TrelanLogCreator::checkMessage(const QString &message)
{
    const QMutexLocker locker(&_mutex);
    if (_repeatInterval <= MAX_UNSUPPRESSED_INTERVAL)
        return true;
    if (message != _lastMessage) {
        _lastMessageTime = QTime::currentTime();
        _lastMessage = message;
        _repeatInterval = _baseRepeatInterval;
        return true;
    }
    if (_lastMessageTime.isValid() && elapsedSince(_lastMessageTime) < _repeatInterval)
        return false;
    _repeatInterval = qMin(MAX_REPEAT_INTERVAL, int(_repeatInterval * INTERVAL_GROWTH));
    _lastMessageTime = QTime::currentTime();
    return true;
}

void TrelanLogCreator::humanKelLog(QtMsgType type, const QMessageLogContext &context,
                                   const QString &message)
{
    Q_UNUSED(context)
    if (_connecting || !checkMessage(message))
        return;
    const QPointer<TrelanLogCreator> creator = createCreator();
    if (!creator)
        return;
    creator->sendMessage(prefixOf(type), message);
    if (creator)
        creator->deleteLater();
}

void TrelanLogCreator::sendMessage(QString prefix, QString msg)
{
    msg.replace(QLatin1String("\r\n"), QLatin1String("\t"));
    msg.replace(QLatin1Char('\r'), QLatin1Char('\t'));
    msg.replace(QLatin1Char('\n'), QLatin1Char('\t'));

    TrelanCommand command;
    command.setName(QStringLiteral("saveLog"));
    command.setSender(d->_clientName);
    command.setReciever(QStringLiteral("logger"));
    command.setParams({{QStringLiteral("prefix"), prefix}, {QStringLiteral("text"), msg}});
    TrelanMessage message;
    if (TrelanTransport::mode() == TrelanTransport::Prompt)
        command.setUid(uids::unique(command));
    if (command.toTrelanMessage(message))
        emit sendMessage(message);
}

} // namespace bus
