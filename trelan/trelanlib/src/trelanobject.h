#pragma once

#include "trelangadget.h"
#include "trelanglobal.h"
#include "trelantimestamp.h"

#include <QtCore/QDateTime>
#include <QtCore/QFlags>
#include <QtCore/QMetaType>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <optional>

namespace bus
{

class TrelanMessage;

/// \brief A named shared object: what clients publish, subscribe to by wildcard and load back.
///
/// A plain value, cheap to copy (its members are implicitly shared) and registered with Qt's meta
/// types under "TrelanObject" and "bus::TrelanObject", so that it travels through queued signals.
/// Distinct instances may be used from different threads; one instance may not be changed in one
/// thread while another reads it.
///
/// \code
/// bus::TrelanObject load;
/// load.setName("host.box.load");
/// load.setContent({ { "one", 0.42 }, { "five", 0.37 } });
/// handler.publish(load); // fills in the publisher, and uid and time where they are missing
/// \endcode
class TRELAN_EXPORT TrelanObject
{
public:
    /// What the bus does with the object. Bits without a name here are carried along untouched.
    enum Option {
        Logged = 0x1,   ///< the bus leaves a line in its log for each publish
        Stored = 0x2,   ///< the bus keeps the last value, so that it can be loaded
        Permanent = 0x4 ///< the last value outlives a restart of the bus; implies Stored
    };
    Q_DECLARE_FLAGS(Options, Option)

    static const QString MSG_REASON_HD;  ///< "__reason__", key of the reason in a notification
    static const QString MSG_REASON_SUB; ///< "sub", the reason of every notification
    static const QString MSG_NAME_HD;    ///< "__name__", key of the object's name
    static const QString MSG_CONTEXT_HD; ///< "__context__", key of the object's content

    /// An object without name, content and uid, Stored, with the current time as its time stamp.
    TrelanObject();
    TrelanObject(const TrelanObject &other);
    /// Leaves \a other without its values, its time included; the flag word is copied.
    TrelanObject(TrelanObject &&other);
    /// As the default constructor, with another time.
    explicit TrelanObject(const TrelanTimestamp &timestamp);
    ~TrelanObject();

    TrelanObject &operator=(const TrelanObject &other);
    /// Swaps everything with \a other except the flag word, which is copied.
    TrelanObject &operator=(TrelanObject &&other) noexcept;

    /// True when all six fields are equal.
    bool operator==(const TrelanObject &other) const;
    bool operator!=(const TrelanObject &other) const;

    /// Client name of the publisher. The bus fills it in; what a client sets here is replaced.
    QString publisher() const;
    void setPublisher(const QString &publisher);

    /// Dotted name, for example "a.b.c".
    QString name() const;
    void setName(const QString &name);

    /// Time stamp; travels with millisecond resolution and comes back in local time.
    QDateTime dt() const;
    void setDt(const QDateTime &dt);

    QVariantMap content() const;
    void setContent(const QVariantMap &content);

    /// \brief The content as a Q_GADGET; see TrelanGadget.
    ///
    /// A property without a key in the content has the value of a default \a Gadget. Nothing is
    /// returned where a key does not fit its property; \a fault says then which one, and why.
    ///
    /// \code
    /// if (const auto room = object.contentAs<Room>())
    ///     show(room->celsius);
    /// \endcode
    template <typename Gadget>
    std::optional<Gadget> contentAs(QString *fault = nullptr) const
    {
        static_assert(TrelanGadget::isGadget<Gadget>(), "contentAs() makes a Q_GADGET");
        std::optional<Gadget> gadget(std::in_place);
        if (!TrelanGadget::fromMap(_content, *gadget, fault))
            gadget.reset();
        return gadget;
    }

    /// Unique id of this value of the object; empty until somebody sets it.
    QString uid() const;
    void setUid(const QString &uid);

    QFlags<Option> options() const;
    void setOptions(const QFlags<Option> &options);

    bool isLogged() const;
    void setLogged(bool logged);

    bool isStored() const;
    /// Clearing it clears Permanent too.
    void setStored(bool stored);

    /// True only when the object is both Stored and Permanent.
    bool isPermanent() const;
    /// Setting it sets Stored too; clearing it leaves Stored as it was.
    void setPermanent(bool permanent);

    /// A fresh unique id (28 characters) over the fields and the current time in milliseconds. The
    /// object does not store it. Two calls within one millisecond on equal objects return equal
    /// ids.
    QString genUid() const;

    /// The wire form, a map with the keys "p", "nm", "dt", "cnt", "uid" and "opt".
    QVariantMap toVariantMap() const;

    /// The object in \a map. Never fails: an absent or unreadable entry gives an empty field, flag
    /// word 0 and the epoch as time, since a default object's values would pretend to be received.
    static TrelanObject fromVariantMap(const QVariantMap &map);

    /// The notification that a subscriber called \a reciever gets for this object.
    TrelanMessage toMessage(const QString &reciever) const;

    /// \brief Whether the subscription \a wildcard takes in an object called \a name.
    ///
    /// Names and wildcards are split at dots. In a wildcard the segment "+" stands for exactly one
    /// segment, and "*" at the end for one or more. "*" at the beginning stands for any number of
    /// segments, none included, if the wildcard also ends in "*". "*" alone takes in everything.
    /// Case matters. Two rules surprise and are part of the contract of the bus: the literal
    /// segments of a wildcard have to stand side by side in the name ("a.+.c" does not take in
    /// "a.b.c"), and a star at the beginning needs one at the end ("*.c" takes in nothing but
    /// "*.c").
    static bool testWildCard(const QString &name, const QString &wildcard);

    /// The time stamp as it travels: unlike dt(), it does not ask the system for local time.
    const TrelanTimestamp &timestamp() const;

private:
    QString _publisher;
    QString _name;
    TrelanTimestamp _timestamp;
    QVariantMap _content;
    QString _uid;
    QFlags<Option> _options;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(TrelanObject::Options)

} // namespace bus

Q_DECLARE_METATYPE(bus::TrelanObject)
Q_DECLARE_METATYPE(QSharedPointer<bus::TrelanObject>)
