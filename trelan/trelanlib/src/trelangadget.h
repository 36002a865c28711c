#pragma once

#include "trelanglobal.h"

#include <QtCore/QMetaObject>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <type_traits>

namespace bus
{

/// \brief Between a Q_GADGET and the content of an object, by the gadget's properties.
///
/// Every stored property has a key of its name. Its type is bool, a whole number of any size,
/// double, float, QString, QStringList, QVariantList, QVariantMap, QVariant, QByteArray, QDateTime,
/// an enum or flags that moc knows, or another gadget, which travels as a map of its own. A list of
/// gadgets or numbers has to be a QVariantList.
///
/// A whole number has to arrive exactly: 300 for a quint8 and 1.5 for an int are faults. One above
/// 2^63 - 1 travels as a text. Enums travel by the names of their values, and are taken by number,
/// too, if that is a value. A QDateTime travels in UTC, a QByteArray as text, and NaN as null; see
/// docs/values.md. A fault names the property, and says what came and what was expected: "celsius"
/// is the text "warm", and a number (double) was expected.
///
/// \code
/// struct Room
/// {
///     Q_GADGET
///     Q_PROPERTY(double celsius MEMBER celsius)
/// public:
///     double celsius = 0;
/// };
/// \endcode
///
/// Thread-safe.
class TRELAN_EXPORT TrelanGadget
{
public:
    TrelanGadget() = delete;

    /// Whether \a Type is a Q_GADGET, and no QObject.
    template <typename Type>
    static constexpr bool isGadget()
    {
        return Probe<Type>::VALUE;
    }

    /// The content of \a gadget. A property that cannot travel is left out, and named in \a fault.
    template <typename Type>
    static QVariantMap toMap(const Type &gadget, QString *fault = nullptr)
    {
        return write(Type::staticMetaObject, &gadget, fault);
    }

    /// Sets the properties of \a gadget that \a map has. A key that is missing leaves its property
    /// as it was, and a key without a property is ignored. A value that does not fit leaves the
    /// whole gadget as it was: false then, with the reason in \a fault.
    template <typename Type>
    static bool fromMap(const QVariantMap &map, Type &gadget, QString *fault = nullptr)
    {
        Type taken = gadget;
        if (!read(Type::staticMetaObject, map, &taken, fault))
            return false;
        gadget = taken;
        return true;
    }

private:
    template <typename Type, typename = void>
    struct Probe
    {
        static constexpr bool VALUE = false;
    };
    template <typename Type>
    struct Probe<Type, std::void_t<decltype(Type::staticMetaObject), typename Type::QtGadgetHelper>>
    {
        static constexpr bool VALUE = true;
    };

    static QVariantMap write(const QMetaObject &type, const void *gadget, QString *fault);
    static bool read(const QMetaObject &type, const QVariantMap &map, void *gadget, QString *fault);
};

} // namespace bus
