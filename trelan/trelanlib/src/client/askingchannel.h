#pragma once

#include "client/framelink.h"
#include "trelanerror.h"

#include <QtCore/QBasicTimer>
#include <QtCore/QElapsedTimer>
#include <QtCore/QQueue>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <functional>

namespace bus
{

/// What a bus has said of itself when it was asked for its features. Nothing, if it does not know
/// the question. Internal to the library.
struct BusFeatures
{
    QStringList names;
    QString instance; ///< of the bus: another one after a restart
    QString channel;  ///< on which it was asked

    static BusFeatures fromData(const QVariantMap &data);
    bool has(const QString &name) const { return names.contains(name); }
};

/// \brief The query channel without waiting: requests are sent at once, and their replies are taken
/// in order as they come. Internal to the library; one thread.
///
/// A reply that takes longer than the patience, and one that is none, end the connection: a late
/// one would be taken for the next. What was asked and not answered is told before that.
class AskingChannel : public QObject, private FrameLink::Owner
{
    Q_OBJECT

public:
    struct Reply
    {
        bool isThere = false; ///< false: the connection has ended before it came
        TrelanError error;    ///< none if the request was done
        QVariantMap data;

        bool isYes() const { return isThere && error.error() == TrelanError::NoError; }
    };
    using Done = std::function<void(const Reply &)>;

    explicit AskingChannel(QObject *parent = nullptr);

    void open(quint32 host, quint16 port, int patience);
    /// Ends the connection without a signal. What was asked is told so.
    void close();

    /// Sends a request. \a done is called later, in any case, and may close the channel.
    void ask(const QByteArray &frame, const Done &done);
    void shakeHands(const QString &clientName, bool asksFeatures, const Done &done);

    bool isIdle() const;
    QString localAddress() const;

Q_SIGNALS:
    void connected();
    /// The last reply that was waited for has been handed on.
    void idle();
    /// The connection could not be made, or was lost.
    void lost(const QString &reason);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct Asked
    {
        Done done;
        qint64 at;
    };

    void onConnected(FrameLink &link) override;
    void onFrame(FrameLink &link, TrelanFrame::Kind kind, const QByteArray &payload) override;
    void onLost(FrameLink &link, const QString &reason) override;
    void breakOff(const QString &reason);
    void tellUnanswered();
    bool read(const QByteArray &payload, Reply &reply);

    FrameLink _link;
    QQueue<Asked> _asked;
    QElapsedTimer _clock;
    QBasicTimer _watch; // looks at the oldest request now and then, while there is one
    int _patience = 0;
    QByteArray _plainYes; // the last payload that said nothing but yes
};

} // namespace bus
