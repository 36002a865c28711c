#include "dbusbus.h"

#include "arrivals.h"

#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusPendingCall>
#include <QtDBus/QDBusVariant>

namespace
{

const QString SERVICE = QStringLiteral("org.example.Bench");
const QString PATH = QStringLiteral("/bench");
const QString INTERFACE = QStringLiteral("org.example.Bench");
const QString PUBLISH = QStringLiteral("publish");
constexpr int PATIENCE_MS = 10000;

/// QtDBus leaves maps inside of maps as they came until somebody asks for them.
QVariant plain(const QVariant &value);

QVariantMap plain(QVariantMap map)
{
    for (QVariant &value : map)
        value = plain(value);
    return map;
}

QVariant plain(const QVariant &value)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return plain(value.value<QDBusVariant>().variant());
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        for (QVariant &element : list)
            element = plain(element);
        return list;
    }
    if (value.userType() != qMetaTypeId<QDBusArgument>())
        return value;
    const auto argument = value.value<QDBusArgument>();
    if (argument.currentType() == QDBusArgument::MapType)
        return plain(qdbus_cast<QVariantMap>(argument));
    return plain(QVariant(qdbus_cast<QVariantList>(argument)));
}

/// Something that the daemon answers, after all that it has been sent before.
bool answers(const QDBusConnection &connection)
{
    const QDBusMessage question = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId"));
    return connection.call(question, QDBus::Block, PATIENCE_MS).type() ==
           QDBusMessage::ReplyMessage;
}

class DBusPublisher : public Publisher
{
public:
    explicit DBusPublisher(const QDBusConnection &connection)
        : _connection(connection)
    {}

    bool publish(const QVariantMap &content) override
    {
        const QDBusMessage reply =
            _connection.call(call(PUBLISH, content), QDBus::Block, PATIENCE_MS);
        return reply.type() == QDBusMessage::ReplyMessage;
    }
    bool publishAll(const QVariantMap &content, int number) override
    {
        QList<QDBusPendingCall> calls;
        for (int i = 0; i < number; ++i)
            calls.append(_connection.asyncCall(call(PUBLISH, content), PATIENCE_MS));
        for (QDBusPendingCall &pending : calls) {
            pending.waitForFinished();
            if (pending.isError())
                return false;
        }
        return true;
    }
    bool attend(const QVariantMap &content) override
    {
        return pass(content) && answers(_connection);
    }
    bool call(const QVariantMap &content) override
    {
        QDBusPendingCall pending =
            _connection.asyncCall(call(QStringLiteral("echo"), content), PATIENCE_MS);
        pending.waitForFinished();
        return !pending.isError() && !plain(pending.reply().arguments().value(0)).toMap().isEmpty();
    }
    bool pass(const QVariantMap &content) override
    {
        QDBusMessage signal =
            QDBusMessage::createSignal(PATH, INTERFACE, QStringLiteral("published"));
        signal << content;
        return _connection.send(signal);
    }
    bool passAll(const QVariantMap &content, int number) override
    {
        bool done = true;
        for (int i = 0; i < number; ++i)
            done = pass(content) && done;
        return done;
    }

private:
    static QDBusMessage call(const QString &method, const QVariantMap &content)
    {
        QDBusMessage message = QDBusMessage::createMethodCall(SERVICE, PATH, INTERFACE, method);
        message << content;
        return message;
    }

    QDBusConnection _connection;
};

class DBusReceiver : public QObject, public Receiver
{
    Q_OBJECT

public:
    DBusReceiver(const QDBusConnection &connection, Arrivals &arrivals)
        : _connection(connection)
        , _arrivals(arrivals)
    {}

    bool open()
    {
        if (!_connection.connect(QString(), PATH, INTERFACE, QStringLiteral("published"), this,
                                 SLOT(published(QVariantMap))))
            return false;
        // What asks for the signals has left by now: an answer to what follows says it was taken.
        return answers(_connection);
    }

public Q_SLOTS:
    void published(const QVariantMap &content) { _arrivals.count(plain(content)); }

private:
    QDBusConnection _connection;
    Arrivals &_arrivals;
};

/// Answers, and does nothing else.
class Service : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.Bench")

public Q_SLOTS:
    bool publish(const QVariantMap &content) { return !content.isEmpty(); }
    QVariantMap echo(const QVariantMap &content) { return plain(content); }
};

} // namespace

DBusBus::DBusBus(const QStringList &address)
    : _address(address.value(0))
{}

std::unique_ptr<Publisher> DBusBus::connectPublisher()
{
    const auto connection = QDBusConnection::connectToBus(_address, QStringLiteral("publisher"));
    return connection.isConnected() ? std::make_unique<DBusPublisher>(connection) : nullptr;
}

std::unique_ptr<Receiver> DBusBus::connectReceiver(int number, Arrivals &arrivals)
{
    auto receiver = std::make_unique<DBusReceiver>(
        QDBusConnection::connectToBus(_address, QString::number(number)), arrivals);
    return receiver->open() ? std::move(receiver) : nullptr;
}

void DBusBus::serve()
{
    Service service;
    auto connection = QDBusConnection::connectToBus(_address, QStringLiteral("service"));
    if (!connection.registerObject(PATH, &service, QDBusConnection::ExportAllSlots) ||
        !connection.registerService(SERVICE))
        return;
    ready();
    QCoreApplication::exec();
}

#include "dbusbus.moc"
