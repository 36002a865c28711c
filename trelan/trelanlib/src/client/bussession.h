#pragma once

#include "client/askingchannel.h"
#include "client/messagechannel.h"
#include "client/nameprobe.h"
#include "client/reconnectpolicy.h"
#include "trelanclientsettings.h"
#include "trelanconnectionstate.h"

#include <QtCore/QSet>
#include <QtCore/QTimer>

namespace bus
{

/// \brief Keeps both channels of a client connected, and knows why they are not. Internal to the
/// library; one thread.
///
/// A session is up while the bus has accepted both channels. When one is lost the other is closed,
/// too, since the bus has forgotten the subscriptions or is going to.
class BusSession : public QObject
{
    Q_OBJECT

public:
    BusSession(const QString &clientName, const TrelanClientSettings &settings,
               QObject *parent = nullptr);

    void start();
    void stop();

    bool isUp() const { return _phase == Up; }
    /// Whether the first attempt has not ended yet.
    bool isFirstAttempt() const;
    const TrelanConnectionState &state() const { return _state; }
    const BusFeatures &features() const { return _features; }

    AskingChannel &queries() { return _queries; }

    /// The bus has refused what every bus does on a query channel.
    void takeForOtherPort();

Q_SIGNALS:
    void up();
    /// An attempt to connect has failed, or the session was up and is not any more. What was asked
    /// was told so before.
    void down();
    void stateChanged(const bus::TrelanConnectionState &state);
    void arrived(const bus::TrelanMessage &message);

private:
    enum Phase { Stopped, Connecting, Up, Probing, Pausing };

    void connectNow();
    void onQueryAnswer(const AskingChannel::Reply &reply);
    void onAccepted(const BusFeatures &features, const QString &channel);
    void onRefused(const TrelanError &error);
    void onProbed(NameProbe::Outcome outcome, const QString &address);
    void fail(TrelanConnectionState::Reason reason, const QString &description);
    void pause(int milliseconds);
    void closeChannels();
    void setState(const TrelanConnectionState &state);
    QString address() const;

    const QString _clientName;
    const TrelanClientSettings _settings;
    const quint32 _host;
    AskingChannel _queries;
    MessageChannel _messages;
    NameProbe _probe;
    ReconnectPolicy _policy;
    QTimer _pause;
    Phase _phase = Stopped;
    TrelanConnectionState _state;
    BusFeatures _features;
    QSet<QString> _ownAddresses; // of the last connections
    bool _asksFeatures = true;   // until a bus refuses the question
};

} // namespace bus
