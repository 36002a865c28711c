#include "trelangadget.h"

#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QMetaProperty>

#include <cmath>
#include <limits>
#include <optional>

namespace bus
{

namespace
{

constexpr int SHOWN_TEXT = 40;
constexpr double EXACT_DOUBLE = 9007199254740992.; // 2^53: from here on doubles skip whole numbers

/// A whole number of either sign and any size; the bits are those of a qint64 if it is negative.
struct Whole
{
    bool isNegative = false;
    quint64 bits = 0;
};

Whole wholeOf(qint64 number)
{
    return {number < 0, quint64(number)};
}

/// One of the whole number types that a property can have.
struct IntegerType
{
    int id;
    qint64 min;
    quint64 max;
    QVariant (*make)(quint64 bits);
    Whole (*take)(const QVariant &value);
};

template <typename Type>
IntegerType integer()
{
    return {qMetaTypeId<Type>(), qint64(std::numeric_limits<Type>::min()),
            quint64(std::numeric_limits<Type>::max()),
            [](quint64 bits) { return QVariant::fromValue(Type(bits)); },
            [](const QVariant &value) {
                const Type number = value.value<Type>();
                return Whole {number < Type(0), quint64(number)};
            }};
}

const IntegerType *integerType(int id)
{
    static const IntegerType TYPES[] = {
        integer<int>(),   integer<uint>(),        integer<qlonglong>(), integer<qulonglong>(),
        integer<short>(), integer<ushort>(),      integer<long>(),      integer<ulong>(),
        integer<char>(),  integer<signed char>(), integer<uchar>()};
    for (const IntegerType &type : TYPES) {
        if (type.id == id)
            return &type;
    }
    return nullptr;
}

bool isNull(const QVariant &value)
{
    return !value.isValid() || value.userType() == QMetaType::Nullptr;
}

bool isFraction(const QVariant &value)
{
    return value.userType() == QMetaType::Double || value.userType() == QMetaType::Float;
}

/// The whole number in \a value. A double counts as long as it can be told from its neighbours.
std::optional<Whole> toWhole(const QVariant &value)
{
    if (const IntegerType *type = integerType(value.userType()))
        return type->take(value);
    const double number = isFraction(value) ? value.toDouble() : 0.5;
    if (std::trunc(number) != number || std::abs(number) > EXACT_DOUBLE)
        return std::nullopt;
    return wholeOf(qint64(number));
}

std::optional<double> toDouble(const QVariant &value)
{
    if (isFraction(value))
        return value.toDouble();
    if (const std::optional<Whole> whole = toWhole(value))
        return whole->isNegative ? double(qint64(whole->bits)) : double(whole->bits);
    return std::nullopt;
}

/// What has come, for people. A text is quoted and cut, since anybody may have sent it.
QString describe(const QVariant &value)
{
    if (isNull(value))
        return QStringLiteral("null");
    if (toDouble(value))
        return QStringLiteral("the number ") + value.toString();
    switch (value.userType()) {
    case QMetaType::Bool:
        return value.toString();
    case QMetaType::QString: {
        const QString text = value.toString();
        QString quoted;
        QDebug(&quoted) << text.left(SHOWN_TEXT);
        return QStringLiteral("the text ") + quoted.trimmed() +
               (text.size() > SHOWN_TEXT ? QStringLiteral("...") : QString());
    }
    case QMetaType::QStringList:
    case QMetaType::QVariantList:
        return QStringLiteral("a list");
    case QMetaType::QVariantMap:
        return QStringLiteral("a map");
    default:
        return QStringLiteral("of the type ") + QLatin1String(value.typeName());
    }
}

const QMetaObject *gadgetType(int id)
{
    return QMetaType::typeFlags(id) & QMetaType::IsGadget ? QMetaType::metaObjectForType(id)
                                                          : nullptr;
}

QString typeOf(const QMetaProperty &property)
{
    return QLatin1String(property.typeName());
}

/// Every bit that a name stands for.
int knownBits(const QMetaEnum &flags)
{
    int bits = 0;
    for (int i = 0; i < flags.keyCount(); ++i)
        bits |= flags.value(i);
    return bits;
}

/// The name of \a number, or null if it has none.
QString nameOf(const QMetaEnum &names, int number)
{
    if (!names.isFlag())
        return QString::fromLatin1(names.valueToKey(number));
    if (number & ~knownBits(names))
        return QString();
    const QByteArray keys = names.valueToKeys(number);
    return keys.isEmpty() ? QLatin1String("") : QString::fromLatin1(keys);
}

/// Reads a map into a gadget. It stops at the first value that does not fit.
class Reader
{
public:
    bool read(const QMetaObject &type, const QVariantMap &map, void *gadget, const QString &path);
    QString fault() const { return _fault; }

private:
    bool take(const QMetaProperty &property, const QVariant &value, void *gadget);
    std::optional<QVariant> converted(const QMetaProperty &property, const QVariant &value);
    std::optional<QVariant> toInteger(const IntegerType &type, const QMetaProperty &property,
                                      const QVariant &value);
    std::optional<QVariant> toFraction(const QMetaProperty &property, const QVariant &value);
    std::optional<QVariant> toEnum(const QMetaProperty &property, const QVariant &value);
    std::optional<QVariant> toTexts(const QMetaProperty &property, const QVariant &value);
    std::optional<QVariant> toTime(const QMetaProperty &property, const QVariant &value);
    std::optional<QVariant> only(bool fits, const QMetaProperty &property, const QVariant &value,
                                 const char *expected);
    std::nullopt_t misfit(const QVariant &value, const QString &expected,
                          const QMetaProperty &property);

    QString _path; // of what is being read, as "door.open"
    QString _fault;
};

bool Reader::read(const QMetaObject &type, const QVariantMap &map, void *gadget,
                  const QString &path)
{
    for (int i = 0; i < type.propertyCount(); ++i) {
        const QMetaProperty property = type.property(i);
        const auto entry = map.constFind(QString::fromUtf8(property.name()));
        // What cannot be written is made of the other properties.
        if (entry == map.constEnd() || !property.isStored() || !property.isWritable())
            continue;
        _path = path + entry.key();
        if (!take(property, *entry, gadget))
            return false;
    }
    return true;
}

bool Reader::take(const QMetaProperty &property, const QVariant &value, void *gadget)
{
    if (const QMetaObject *type = gadgetType(property.userType())) {
        if (value.userType() != QMetaType::QVariantMap) {
            misfit(value, QStringLiteral("a map"), property);
            return false;
        }
        QVariant inner = property.readOnGadget(gadget);
        return read(*type, value.toMap(), inner.data(), _path + QLatin1Char('.')) &&
               property.writeOnGadget(gadget, inner);
    }
    const std::optional<QVariant> taken = converted(property, value);
    return taken && property.writeOnGadget(gadget, *taken);
}

std::optional<QVariant> Reader::converted(const QMetaProperty &property, const QVariant &value)
{
    if (property.isEnumType())
        return toEnum(property, value);
    if (const IntegerType *type = integerType(property.userType()))
        return toInteger(*type, property, value);
    const int type = value.userType();
    switch (property.userType()) {
    case QMetaType::Bool:
        return only(type == QMetaType::Bool, property, value, "true or false");
    case QMetaType::Double:
    case QMetaType::Float:
        return toFraction(property, value);
    case QMetaType::QString:
        return only(type == QMetaType::QString, property, value, "a text");
    case QMetaType::QByteArray:
        if (type == QMetaType::QString)
            return value.toString().toUtf8();
        return only(type == QMetaType::QByteArray, property, value, "a text");
    case QMetaType::QStringList:
        return toTexts(property, value);
    case QMetaType::QVariantList:
        if (type == QMetaType::QStringList)
            return value.toList();
        return only(type == QMetaType::QVariantList, property, value, "a list");
    case QMetaType::QVariantMap:
        return only(type == QMetaType::QVariantMap, property, value, "a map");
    case QMetaType::QDateTime:
        return toTime(property, value);
    case QMetaType::QVariant:
        return value;
    default:
        _fault = QStringLiteral("\"%1\" has the type %2, which does not travel")
                     .arg(_path, typeOf(property));
        return std::nullopt;
    }
}

/// \a value itself if it fits.
std::optional<QVariant> Reader::only(bool fits, const QMetaProperty &property,
                                     const QVariant &value, const char *expected)
{
    if (fits)
        return value;
    return misfit(value, QLatin1String(expected), property);
}

std::optional<QVariant> Reader::toInteger(const IntegerType &type, const QMetaProperty &property,
                                          const QVariant &value)
{
    const quint64 exactOnWire = quint64(std::numeric_limits<qint64>::max());
    std::optional<Whole> whole = toWhole(value);
    bool isText = false;
    if (type.max > exactOnWire && value.userType() == QMetaType::QString) {
        whole = Whole {false, value.toString().toULongLong(&isText)};
        if (!isText)
            whole.reset();
    }
    if (whole && (whole->isNegative ? qint64(whole->bits) >= type.min : whole->bits <= type.max))
        return type.make(whole->bits);
    QString expected = QStringLiteral("a whole number from %1 to %2")
                           .arg(type.min)
                           .arg(qMin(type.max, exactOnWire));
    if (type.max > exactOnWire)
        expected += QStringLiteral(", or a greater one as a text,");
    return misfit(value, expected, property);
}

std::optional<QVariant> Reader::toFraction(const QMetaProperty &property, const QVariant &value)
{
    const bool isFloat = property.userType() == QMetaType::Float;
    const double max =
        isFloat ? double(std::numeric_limits<float>::max()) : std::numeric_limits<double>::max();
    // A number that is none travels as null.
    const std::optional<double> number =
        isNull(value) ? std::numeric_limits<double>::quiet_NaN() : toDouble(value);
    if (!number)
        return misfit(value, QStringLiteral("a number"), property);
    if (isFloat && std::abs(*number) > max)
        return misfit(value, QStringLiteral("a number of at most %1").arg(max), property);
    return isFloat ? QVariant(float(*number)) : QVariant(*number);
}

std::optional<QVariant> Reader::toEnum(const QMetaProperty &property, const QVariant &value)
{
    const QMetaEnum names = property.enumerator();
    bool isKnown = false;
    int number = 0;
    if (value.userType() == QMetaType::QString) {
        const QByteArray keys = value.toString().toUtf8();
        isKnown = names.isFlag() && keys.isEmpty();
        if (!isKnown)
            number = names.isFlag() ? names.keysToValue(keys, &isKnown)
                                    : names.keyToValue(keys, &isKnown);
    } else if (const std::optional<Whole> whole = toWhole(value)) {
        number = int(whole->bits);
        isKnown = qint64(number) == qint64(whole->bits) && (number < 0) == whole->isNegative &&
                  !nameOf(names, number).isNull();
    }
    if (isKnown)
        return number;
    QStringList known;
    for (int i = 0; i < names.keyCount(); ++i)
        known << QLatin1String(names.key(i));
    return misfit(value,
                  (names.isFlag() ? QStringLiteral("some of ") : QStringLiteral("one of ")) +
                      known.join(names.isFlag() ? QLatin1String("|") : QLatin1String(", ")),
                  property);
}

std::optional<QVariant> Reader::toTexts(const QMetaProperty &property, const QVariant &value)
{
    const QString expected = QStringLiteral("a list of texts");
    if (value.userType() == QMetaType::QStringList)
        return value;
    if (value.userType() != QMetaType::QVariantList)
        return misfit(value, expected, property);
    QStringList texts;
    const QVariantList list = value.toList();
    for (const QVariant &element : list) {
        if (element.userType() != QMetaType::QString) {
            _path += QStringLiteral("[%1]").arg(texts.size());
            return misfit(element, QStringLiteral("a text of a list"), property);
        }
        texts << element.toString();
    }
    return texts;
}

std::optional<QVariant> Reader::toTime(const QMetaProperty &property, const QVariant &value)
{
    if (value.userType() == QMetaType::QDateTime)
        return value;
    if (isNull(value))
        return QDateTime();
    const std::optional<Whole> milliseconds = toWhole(value);
    const QDateTime time =
        milliseconds ? QDateTime::fromMSecsSinceEpoch(qint64(milliseconds->bits), Qt::UTC)
                     : QDateTime::fromString(
                           value.userType() == QMetaType::QString ? value.toString() : QString(),
                           Qt::ISODateWithMs);
    if (time.isValid())
        return time;
    return misfit(value, QStringLiteral("a time as in 2026-03-01T12:30:15.250Z"), property);
}

std::nullopt_t Reader::misfit(const QVariant &value, const QString &expected,
                              const QMetaProperty &property)
{
    _fault = QStringLiteral("\"%1\" is %2, and %3 (%4) was expected")
                 .arg(_path, describe(value), expected, typeOf(property));
    return std::nullopt;
}

/// Writes a gadget into a map. It goes on behind what cannot travel.
class Writer
{
public:
    QVariantMap write(const QMetaObject &type, const void *gadget, const QString &path);
    QString fault() const { return _fault; } ///< of the first property that cannot travel

private:
    std::optional<QVariant> converted(const QMetaProperty &property, const QVariant &value,
                                      const QString &path);
    std::nullopt_t refuse(const QString &path, const QString &reason);

    QString _fault;
};

QVariantMap Writer::write(const QMetaObject &type, const void *gadget, const QString &path)
{
    QVariantMap map;
    for (int i = 0; i < type.propertyCount(); ++i) {
        const QMetaProperty property = type.property(i);
        if (!property.isStored() || !property.isReadable())
            continue;
        const QString name = QString::fromUtf8(property.name());
        // Qt warns of reading what has no registered type.
        const QVariant read = property.userType() == QMetaType::UnknownType
                                  ? QVariant()
                                  : property.readOnGadget(gadget);
        if (const std::optional<QVariant> value = converted(property, read, path + name))
            map.insert(name, *value);
    }
    return map;
}

QVariant integerToWire(const Whole &whole)
{
    // JSON numbers are exact up to 2^63 - 1: see docs/values.md.
    if (!whole.isNegative && whole.bits > quint64(std::numeric_limits<qint64>::max()))
        return QString::number(whole.bits);
    return qint64(whole.bits);
}

std::optional<QVariant> Writer::converted(const QMetaProperty &property, const QVariant &value,
                                          const QString &path)
{
    if (property.isEnumType()) {
        const QString key = nameOf(property.enumerator(), value.toInt());
        return key.isNull() ? QVariant(value.toInt()) : QVariant(key);
    }
    if (const IntegerType *type = integerType(property.userType()))
        return integerToWire(type->take(value));
    if (const QMetaObject *type = gadgetType(property.userType()))
        return write(*type, value.constData(), path + QLatin1Char('.'));
    switch (property.userType()) {
    case QMetaType::Double:
    case QMetaType::Float: {
        const double number = value.toDouble();
        if (std::isinf(number))
            return refuse(path, QStringLiteral("is infinite, and no such number travels"));
        return std::isnan(number) ? QVariant() : QVariant(number);
    }
    case QMetaType::QByteArray: {
        const QString text = QString::fromUtf8(value.toByteArray());
        if (text.toUtf8() != value.toByteArray())
            return refuse(path, QStringLiteral("has bytes that are no UTF-8: use toBase64()"));
        return text;
    }
    case QMetaType::QDateTime: {
        const QDateTime time = value.toDateTime();
        return time.isValid() ? QVariant(time.toUTC().toString(Qt::ISODateWithMs)) : QVariant();
    }
    case QMetaType::QStringList:
        return value.toList();
    case QMetaType::Bool:
    case QMetaType::QString:
    case QMetaType::QVariantList:
    case QMetaType::QVariantMap:
    case QMetaType::QVariant:
        return value;
    default:
        return refuse(
            path, QStringLiteral("has the type %1, which does not travel").arg(typeOf(property)));
    }
}

std::nullopt_t Writer::refuse(const QString &path, const QString &reason)
{
    if (_fault.isEmpty())
        _fault = QStringLiteral("\"%1\" %2").arg(path, reason);
    return std::nullopt;
}

void hand(const QString &fault, QString *out)
{
    if (out)
        *out = fault;
}

} // namespace

QVariantMap TrelanGadget::write(const QMetaObject &type, const void *gadget, QString *fault)
{
    Writer writer;
    const QVariantMap map = writer.write(type, gadget, QString());
    hand(writer.fault(), fault);
    return map;
}

bool TrelanGadget::read(const QMetaObject &type, const QVariantMap &map, void *gadget,
                        QString *fault)
{
    Reader reader;
    const bool fits = reader.read(type, map, gadget, QString());
    hand(reader.fault(), fault);
    return fits;
}

} // namespace bus
