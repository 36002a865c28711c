#pragma once

#include "buslog.h"

#include <QtCore/QTimer>
#include <QtNetwork/QTcpServer>

#include <functional>

namespace bus
{

/// \brief Takes connections, and goes on doing so when the process runs out of descriptors.
class BusListener : public QTcpServer
{
    Q_OBJECT

public:
    explicit BusListener(QObject *parent = nullptr);

Q_SIGNALS:
    /// Whoever takes it owns the descriptor.
    void descriptorArrived(qintptr descriptor);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void onAcceptError();

    QTimer _retry;
    WarningLimiter _warnings;
};

} // namespace bus
