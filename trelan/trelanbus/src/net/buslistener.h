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

/// \brief Takes connections, and goes on after the process has run out of descriptors for a while.
class BusListener : public QObject
{
    Q_OBJECT

public:
    explicit BusListener(QObject *parent = nullptr);

    /// Returns false, with the reason in errorString(), if it cannot listen.
    bool listen(const QHostAddress &host, quint16 port);
    /// Takes connections from a socket that listens already and stays the caller's. Returns false,
    /// with the reason in errorString(), if that is not possible.
    bool listen(int descriptor);
    void close();

    quint16 serverPort() const;
    QHostAddress serverAddress() const;
    QString errorString() const;

Q_SIGNALS:
    /// The receiver owns the descriptor.
    void descriptorArrived(qintptr descriptor);

private:
    bool takeOver(int descriptor);
    void awaitConnections();
    void accept();
    void pause(const QString &reason);

    QTcpServer _server; // listens, but takes no connections itself
    std::unique_ptr<QSocketNotifier> _arrival;
    QTimer _retry;
    WarningLimiter _warnings;
    QString _errorString;
};

} // namespace bus
