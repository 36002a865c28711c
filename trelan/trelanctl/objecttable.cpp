#include "objecttable.h"

#include "terminaltext.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QVector>

namespace trelanctl
{

namespace
{

// One absurdly long name should not push the columns of all other rows off the screen.
const int MAX_COLUMN = 60;
const int MIN_CONTENT = 12;
const QString GAP = QStringLiteral("  ");

QStringList cells(const bus::TrelanObject &object)
{
    const QString time = object.dt().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
    const QJsonObject content = QJsonObject::fromVariantMap(object.content());
    return {terminal::escaped(object.name()), terminal::escaped(object.publisher()),
            time.isEmpty() ? QStringLiteral("-") : time, flagNames(object),
            terminal::escapedJson(QJsonDocument(content).toJson(QJsonDocument::Compact))};
}

} // namespace

QStringList objectTable(const QList<bus::TrelanObject> &objects, int width)
{
    QList<QStringList> rows = {{QStringLiteral("NAME"), QStringLiteral("PUBLISHER"),
                                QStringLiteral("TIME"), QStringLiteral("FLAGS"),
                                QStringLiteral("CONTENT")}};
    for (const bus::TrelanObject &object : objects)
        rows.append(cells(object));

    const int last = rows.first().size() - 1;
    QVector<int> widths(last, 0);
    for (const QStringList &row : std::as_const(rows)) {
        for (int column = 0; column < last; ++column)
            widths[column] = qMax(widths[column], qMin(terminal::width(row[column]), MAX_COLUMN));
    }

    QStringList lines;
    for (const QStringList &row : std::as_const(rows)) {
        QString line;
        for (int column = 0; column < last; ++column)
            line += terminal::padded(row[column], widths[column]) + GAP;
        const int room = qMax(MIN_CONTENT, width - terminal::width(line));
        lines.append(line + (width > 0 ? terminal::cut(row[last], room) : row[last]));
    }
    return lines;
}

QString objectJson(const bus::TrelanObject &object)
{
    const QString time = object.dt().toUTC().toString(Qt::ISODateWithMs);
    const QJsonObject json = {
        {QStringLiteral("name"), object.name()},
        {QStringLiteral("publisher"), object.publisher()},
        {QStringLiteral("time"), time.isEmpty() ? QJsonValue() : QJsonValue(time)},
        {QStringLiteral("uid"), object.uid()},
        {QStringLiteral("stored"), object.isStored()},
        {QStringLiteral("permanent"), object.isPermanent()},
        {QStringLiteral("logged"), object.isLogged()},
        {QStringLiteral("content"), QJsonObject::fromVariantMap(object.content())}};
    return terminal::escapedJson(QJsonDocument(json).toJson(QJsonDocument::Compact));
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
