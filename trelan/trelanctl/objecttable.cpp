#include "objecttable.h"

#include "table.h"
#include "terminaltext.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <array>

namespace trelanctl
{

namespace
{

// The colours of log lines whose prefix is that of an error or a warning.
const char *const RED = "\x1b[31m";
const char *const YELLOW = "\x1b[33m";
const char *const PLAIN = "\x1b[0m";

struct ClientColumn
{
    const char *heading;
    const char *key;
};

// The address stands last, since it is missed least where a line is cut.
constexpr std::array<ClientColumn, 9> CLIENT_COLUMNS = {{{"NAME", "name"},
                                                         {"CONNECTIONS", "connections"},
                                                         {"SUBSCRIPTIONS", "subscriptions"},
                                                         {"QUEUED", "queued"},
                                                         {"BYTES", "queuedBytes"},
                                                         {"IN", "in"},
                                                         {"OUT", "out"},
                                                         {"USER", "user"},
                                                         {"ADDRESS", "address"}}};

/// What is known of one client, from the client to its surroundings.
constexpr std::array<ClientColumn, 9> OWNER_ROWS = {{{"NAME", "name"},
                                                     {"ADDRESS", "address"},
                                                     {"OWNER", "owner"},
                                                     {"USER", "user"},
                                                     {"USER ID", "userId"},
                                                     {"GROUPS", "groups"},
                                                     {"CONTROL GROUP", "controlGroup"},
                                                     {"PROCESS", "process"},
                                                     {"PROGRAM", "program"}}};

QString cellText(const QVariant &value)
{
    const QString text = value.type() == QVariant::List
                             ? value.toStringList().join(QLatin1Char(','))
                             : value.toString();
    return text.isEmpty() ? QStringLiteral("-") : terminal::escaped(text);
}

/// What a client has in a column. Without a user it says what kind of an owner there is.
QVariant cellOf(const QVariantMap &client, const QString &key)
{
    return key == QLatin1String("user") && !client.contains(key)
               ? client.value(QStringLiteral("owner"))
               : client.value(key);
}

QString localTime(const QDateTime &time)
{
    const QString text = time.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
    return text.isEmpty() ? QStringLiteral("-") : text;
}

QJsonValue utcTime(const QDateTime &time)
{
    const QString text = time.toUTC().toString(Qt::ISODateWithMs);
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

QString compact(const QJsonObject &json)
{
    return terminal::escapedJson(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

QString compactMap(const QVariantMap &map)
{
    return compact(QJsonObject::fromVariantMap(map));
}

QJsonObject changeObject(const bus::TrelanObject &object)
{
    return {{QStringLiteral("name"), object.name()},
            {QStringLiteral("publisher"), object.publisher()},
            {QStringLiteral("time"), utcTime(object.dt())},
            {QStringLiteral("uid"), object.uid()},
            {QStringLiteral("content"), QJsonObject::fromVariantMap(object.content())}};
}

QString parameter(const bus::TrelanCommand &command, const char *key)
{
    return command.params().value(QLatin1String(key)).toString();
}

const char *colourOf(const QString &prefix)
{
    if (prefix == QLatin1String("ERROR"))
        return RED;
    return prefix == QLatin1String("WARNING") ? YELLOW : "";
}

} // namespace

QStringList objectTable(const QList<bus::TrelanObject> &objects, int width)
{
    QList<QStringList> rows = {{QStringLiteral("NAME"), QStringLiteral("PUBLISHER"),
                                QStringLiteral("TIME"), QStringLiteral("FLAGS"),
                                QStringLiteral("CONTENT")}};
    for (const bus::TrelanObject &object : objects) {
        QStringList cells = changeCells(object);
        cells.insert(3, flagNames(object));
        rows.append(cells);
    }
    return table(rows, width);
}

QString objectJson(const bus::TrelanObject &object)
{
    QJsonObject json = changeObject(object);
    json.insert(QStringLiteral("stored"), object.isStored());
    json.insert(QStringLiteral("permanent"), object.isPermanent());
    json.insert(QStringLiteral("logged"), object.isLogged());
    return compact(json);
}

QStringList changeCells(const bus::TrelanObject &change)
{
    return {terminal::escaped(change.name()), terminal::escaped(change.publisher()),
            localTime(change.dt()), compactMap(change.content())};
}

QString changeJson(const bus::TrelanObject &change)
{
    return compact(changeObject(change));
}

QStringList removalCells(const QString &name)
{
    return {terminal::escaped(name), QStringLiteral("-"), localTime(QDateTime::currentDateTime()),
            QStringLiteral("removed")};
}

QString removalJson(const QString &name)
{
    return compact({{QStringLiteral("name"), name}, {QStringLiteral("removed"), true}});
}

QString errorOf(const bus::TrelanCommand &answer)
{
    const QVariant error = answer.params().value(QStringLiteral("error"));
    if (error.isNull())
        return {};
    if (error.userType() == QMetaType::QString)
        return terminal::escaped(error.toString());
    const QByteArray list =
        QJsonDocument::fromVariant(QVariantList {error}).toJson(QJsonDocument::Compact);
    return terminal::escapedJson(list.mid(1).chopped(1));
}

QString answerText(const bus::TrelanCommand &answer)
{
    return compactMap(answer.params());
}

QString answerJson(const bus::TrelanCommand &answer)
{
    return compact({{QStringLiteral("command"), answer.name()},
                    {QStringLiteral("client"), answer.sender()},
                    {QStringLiteral("time"), utcTime(answer.dt())},
                    {QStringLiteral("parameters"), QJsonObject::fromVariantMap(answer.params())}});
}

QString logText(const bus::TrelanCommand &saveLog, bool coloured)
{
    const QString prefix = parameter(saveLog, "prefix");
    QString text = parameter(saveLog, "text");
    text.replace(QLatin1Char('\t'), QStringLiteral("  ")); // the bridge's mark of a line break
    const QString line = QStringLiteral("%1  %2  %3  %4")
                             .arg(localTime(saveLog.dt()), terminal::escaped(saveLog.sender()),
                                  terminal::escaped(prefix), terminal::escaped(text));
    const char *colour = coloured ? colourOf(prefix) : "";
    return *colour == '\0' ? line : QLatin1String(colour) + line + QLatin1String(PLAIN);
}

QString logJson(const bus::TrelanCommand &saveLog)
{
    return compact({{QStringLiteral("time"), utcTime(saveLog.dt())},
                    {QStringLiteral("client"), saveLog.sender()},
                    {QStringLiteral("prefix"), parameter(saveLog, "prefix")},
                    {QStringLiteral("text"), parameter(saveLog, "text")}});
}

QStringList clientTable(const QVariantList &clients, int width)
{
    QStringList headings;
    for (const ClientColumn &column : CLIENT_COLUMNS)
        headings.append(QLatin1String(column.heading));
    QList<QStringList> rows = {headings};
    for (const QVariant &client : clients) {
        QStringList cells;
        for (const ClientColumn &column : CLIENT_COLUMNS)
            cells.append(cellText(cellOf(client.toMap(), QLatin1String(column.key))));
        rows.append(cells);
    }
    return table(rows, width);
}

QStringList clientLines(const QVariantMap &client)
{
    QList<QStringList> rows;
    for (const ClientColumn &row : OWNER_ROWS) {
        const QVariant value = client.value(QLatin1String(row.key));
        if (value.isValid())
            rows.append({QLatin1String(row.heading), cellText(value)});
    }
    return table(rows, 0);
}

QString clientJson(const QVariant &client)
{
    return compactMap(client.toMap());
}

QString flagNames(const bus::TrelanObject &object)
{
    QStringList names;
    if (object.isPermanent()) // it implies stored
        names.append(QStringLiteral("permanent"));
    else if (object.isStored())
        names.append(QStringLiteral("stored"));
    if (object.isLogged())
        names.append(QStringLiteral("logged"));

    uint unknown =
        uint(object.options()) & ~uint(bus::TrelanObject::Logged | bus::TrelanObject::Stored);
    if (object.isPermanent())
        unknown &= ~uint(bus::TrelanObject::Permanent);
    if (unknown != 0)
        names.append(QStringLiteral("0x%1").arg(unknown, 0, 16));
    return names.isEmpty() ? QStringLiteral("-") : names.join(QLatin1Char(','));
}

} // namespace trelanctl
