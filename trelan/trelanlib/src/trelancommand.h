#pragma once

#include "trelanglobal.h"
#include "trelantimestamp.h"

#include <QtCore/QDateTime>
#include <QtCore/QMetaType>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

namespace bus
{

class TrelanMessage;
class TrelanObject;

/// \brief A named call with parameters, from one client to another or to everybody.
///
/// A command never travels as such. With a receiver it becomes a message, without one an object
/// published under a reserved name. An answer is a command too: its parent uid is the uid of the
/// command that it answers, its receiver the caller.
///
/// A plain value, registered with Qt's meta types under "TrelanCommand" and "bus::TrelanCommand".
/// The conversions fill in a missing uid although they are const, so two threads must not convert
/// one instance at once; copies are independent.
class TRELAN_EXPORT TrelanCommand
{
public:
    static const QString BUS_OBJ_NAME_PREFIX; ///< "__bus__", first segment of reserved names
    static const QString CMD_NAME_PREFIX;     ///< "__cmd__", second segment of command objects
    static const QString MSG_CMD_HD;          ///< "__cmd__", top-level key of a command's message
    static const QString MSG_NAME_HD;         ///< "__name__", the command's name inside it
    static const QString MSG_PARAMS_HD;       ///< "__params__", the parameters inside it
    static const QString PARENT_UID_HD;       ///< "__parent__", the parent uid inside it

    /// An empty command; its time is invalid, which means the time of its conversion.
    TrelanCommand();
    TrelanCommand(const TrelanCommand &other);
    TrelanCommand(TrelanCommand &&other);
    ~TrelanCommand();

    TrelanCommand &operator=(const TrelanCommand &other);
    TrelanCommand &operator=(TrelanCommand &&other) noexcept;

    /// True when all fields but the log flag are equal; the log flag says how a call is treated,
    /// not which call it is.
    bool operator==(const TrelanCommand &other) const;
    bool operator!=(const TrelanCommand &other) const;

    QString name() const;
    void setName(const QString &name);

    QVariantMap params() const;
    void setParams(const QVariantMap &params);

    /// Unique id; filled in by the first conversion if it is still empty then.
    QString uid() const;
    void setUid(const QString &uid);

    QDateTime dt() const;
    void setDt(const QDateTime &dt);

    QString sender() const;
    void setSender(const QString &sender);

    /// The addressed client; empty for a command to everybody.
    QString reciever() const;
    void setReciever(const QString &reciever);

    /// Uid of the command that this one answers; empty for a call.
    QString parentUid() const;
    void setParentUid(const QString &parentUid);

    bool isLogged() const;
    void setIsLogged(bool isLogged);

    /// Whether the caller waits for an answer: never without a destination, whatever was set.
    bool needAnswer() const;
    void setNeedAnswer(bool needAnswer);

    /// True when the receiver is not empty.
    bool hasDestination() const;

    /// A fresh unique id (28 characters) over sender, receiver, time, name, parameters and the
    /// current time in milliseconds. The command does not store it.
    QString genUid() const;

    /// The reserved object name of the command \a name: "__bus__.__cmd__." and the name.
    static QString createObjectName(const QString &name);

    /// Turns the command into the object under which a command to everybody is published, and
    /// always returns true. An answer should have a receiver: converting one gives a warning.
    bool toTrelanObject(TrelanObject &object) const;

    /// Turns the command into the message that carries it to its receiver. Returns false, with
    /// \a message reset to a default message, when there is no receiver.
    bool toTrelanMessage(TrelanMessage &message) const;

    /// The wire form of the message or, without a receiver, of the object.
    QVariant toVariant() const;

    /// As setDt(), with a time as it travels.
    void setTimestamp(const TrelanTimestamp &timestamp);

private:
    void fillUid() const;
    TrelanTimestamp sendTime() const;

    QString _name;
    QVariantMap _params;
    mutable QString _uid;
    TrelanTimestamp _timestamp;
    QString _sender;
    QString _reciever;
    QString _parentUid;
    bool _isLogged = false;
    bool _needAnswer = false;
};

} // namespace bus

Q_DECLARE_METATYPE(bus::TrelanCommand)
Q_DECLARE_METATYPE(QSharedPointer<bus::TrelanCommand>)
