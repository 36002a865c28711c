#pragma once

#include "trelanglobal.h"
#include "trelantimestamp.h"

#include <QtCore/QDateTime>
#include <QtCore/QFlags>
#include <QtCore/QMetaType>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

namespace bus
{

/// \brief A text from one client to another, addressed by client name.
///
/// Notifications, commands with a destination, their answers and log lines all travel as messages.
/// A plain value, cheap to copy and registered with Qt's meta types under "TrelanMessage" and
/// "bus::TrelanMessage". Distinct instances may be used from different threads.
///
/// "reciever" is spelled so throughout the interface and on the wire.
class TRELAN_EXPORT TrelanMessage
{
public:
    /// How the bus treats the message. Bits without a name here are carried along untouched.
    enum Option {
        Logged = 0x1,    ///< the bus leaves a line in its log
        Stored = 0x2,    ///< waits for a receiver that is not connected
        NeedAnswer = 0x4 ///< the sender waits for an answer
    };
    Q_DECLARE_FLAGS(Options, Option)

    /// An empty message without flags, with the current time as its time stamp.
    TrelanMessage();
    TrelanMessage(const TrelanMessage &other);
    TrelanMessage(TrelanMessage &&other) noexcept;
    /// As the default constructor, with another time.
    explicit TrelanMessage(const TrelanTimestamp &timestamp);
    virtual ~TrelanMessage();

    TrelanMessage &operator=(const TrelanMessage &other);
    TrelanMessage &operator=(TrelanMessage &&other) noexcept;

    /// True when all six fields are equal.
    bool operator==(const TrelanMessage &other) const;
    bool operator!=(const TrelanMessage &other) const;

    /// Client name of the sender. The bus fills it in; what a client sets here is replaced.
    QString sender() const;
    void setSender(const QString &sender);

    /// Client name of the addressee.
    QString reciever() const;
    void setReciever(const QString &reciever);

    QFlags<Option> options() const;
    void setOptions(const QFlags<Option> &options);

    /// Time stamp; travels with millisecond resolution and comes back in local time.
    QDateTime dt() const;
    void setDt(const QDateTime &dt);

    /// The text, often JSON.
    QString message() const;
    void setMessage(const QString &message);

    /// Unique id; empty until somebody sets it.
    QString uid() const;
    void setUid(const QString &uid);

    bool isLogged() const;
    void setLogged(bool logged);

    bool isStored() const;
    void setStored(bool stored);

    bool needAnswer() const;
    void setNeedAnswer(bool needAnswer);

    /// A fresh unique id (28 characters) over the fields and the current time in milliseconds. The
    /// message does not store it. Two calls within one millisecond on equal messages return equal
    /// ids.
    QString genUid() const;

    /// The key under which a message is tracked: sender, reciever and uid, joined with dots.
    QString msgKey() const;

    /// The wire form, a map with the keys "dt", "msg", "r", "s", "uid" and "ops" (an object's flag
    /// word is under "opt": both are part of the wire format).
    QVariantMap toVariantMap() const;

    /// The message in \a map. Never fails: an absent or unreadable entry gives an empty field, flag
    /// word 0 and the epoch as time.
    static TrelanMessage fromVariantMap(const QVariantMap &map);

    /// The time stamp as it travels: unlike dt(), it does not ask the system for local time.
    const TrelanTimestamp &timestamp() const;

private:
    void setOption(Option option, bool on);

    QString _sender;
    QString _reciever;
    QFlags<Option> _options;
    TrelanTimestamp _timestamp;
    QString _message;
    QString _uid;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(TrelanMessage::Options)

} // namespace bus

Q_DECLARE_METATYPE(bus::TrelanMessage)
Q_DECLARE_METATYPE(QSharedPointer<bus::TrelanMessage>)
