#include "codec/replies.h"

#include <wirekeys.h>

namespace bus::replies
{

TrelanError error(const QVariantMap &result)
{
    const QString description = result.value(keys::DESCRIPTION).toString();
    bool isNumber = true;
    const uint code = result.value(keys::CODE, TrelanError::NoError).toUInt(&isNumber);
    if (isNumber)
        return {TrelanError::Error(quint16(code)), description};
    return {TrelanError::IncorrectRequestData,
            QStringLiteral("the code of the reply is no number; its description: ") + description};
}

QMap<QString, TrelanObject> objects(const QVariantMap &data)
{
    QMap<QString, TrelanObject> objects;
    for (auto entry = data.cbegin(); entry != data.cend(); ++entry)
        objects.insert(entry.key(), TrelanObject::fromVariantMap(entry.value().toMap()));
    return objects;
}

} // namespace bus::replies
