#pragma once

#include "trelanbussettings.h"
#include "values/objectrecord.h"

#include <trelanerror.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>
#include <QtCore/QVector>

/// What the bus answers, as frames. An answer above the limit of frames is replaced by a refusal
/// that says so. Pure; any thread.
namespace bus::answers
{

/// An answer without data: success, or a refusal.
QByteArray status(const QString &word, const TrelanError &error, const TrelanBusSettings &settings);

/// An answer with one object as the data.
QByteArray object(const QString &word, const ObjectRecord &record,
                  const TrelanBusSettings &settings);

/// An answer with the objects by name.
QByteArray objects(const QString &word, const QVector<ObjectRecord> &records,
                   const TrelanBusSettings &settings);

QByteArray data(const QString &word, const QVariantMap &data, const TrelanBusSettings &settings);

} // namespace bus::answers
