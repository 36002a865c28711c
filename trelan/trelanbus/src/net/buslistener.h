#pragma once

#include "values/buslog.h"

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpServer>

#include <memory>

namespace bus
{

/// \brief Takes connections, and goes on doing so when the process runs out of descriptors.
class BusListener : public QObject
{
    Q_OBJECT

public:
    explicit BusListener(QObject *parent = nullptr);

    /// False, with the reason in errorString(), if it cannot.
    bool listen(const QHostAddress &host, quint16 port);
    /// The same with a socket that listens already. It stays the caller's.
    bool listen(int descriptor);
    void close();

    quint16 serverPort() const;
    QString errorString() const;

Q_SIGNALS:
    /// Whoever takes it owns the descriptor.
    void descriptorArrived(qintptr descriptor);

private:
    bool takeOver(int descriptor);
    void awaitConnections();
    void accept();
    void pause(const QString &reason);

    QTcpServer _server; // listens; takes nothing itself
    std::unique_ptr<QSocketNotifier> _arrival;
    QTimer _retry;
    WarningLimiter _warnings;
    QString _errorString;
};

} // namespace bus
