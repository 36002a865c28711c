#pragma once

#include "trelancall.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QObject>

namespace bus
{

/// Tells the function that serves a command of its calls. Internal to the library.
class CallSignal : public QObject
{
    Q_OBJECT

public:
    /// Whether the context of the function still exists. Thread-safe.
    bool isConnected() const
    {
        return isSignalConnected(QMetaMethod::fromSignal(&CallSignal::called));
    }

Q_SIGNALS:
    void called(const bus::TrelanCall &call);
};

} // namespace bus
