#pragma once

#include "client/askingchannel.h"

#include <QtCore/QSet>
#include <QtCore/QString>

namespace bus
{

/// \brief Asks the bus, under another name, who has a client's name now. Internal to the library;
/// one thread.
class NameProbe : public QObject
{
    Q_OBJECT

public:
    enum Outcome {
        NoBus,  ///< nobody listens
        Free,   ///< nobody but the client itself has the name
        Taken,  ///< another program has it
        Unknown ///< the bus does not say
    };

    explicit NameProbe(const QString &clientName, QObject *parent = nullptr);

    /// \a own are addresses from which the client itself has connected lately: the bus may not have
    /// noticed yet that these connections are gone.
    void start(quint32 host, quint16 port, int patience, const QSet<QString> &own);
    void stop();

Q_SIGNALS:
    /// Once for each start(), unless it is stopped. \a address is that of who has taken the name.
    void finished(bus::NameProbe::Outcome outcome, const QString &address);

private:
    void onConnected();
    void finish(Outcome outcome, const QString &address = {});
    void judge(const AskingChannel::Reply &reply);

    const QString _clientName;
    AskingChannel _channel;
    QSet<QString> _own;
    bool _isRunning = false;
};

} // namespace bus
