#pragma once

#include "trelanglobal.h"

#include "trelancall.h"
#include "trelanclientsettings.h"
#include "trelancommand.h"
#include "trelanconnectionstate.h"
#include "trelangadget.h"
#include "trelanmessage.h"
#include "trelanobject.h"
#include "trelanoptions.h"
#include "trelanpending.h"

#include <QtCore/QObject>
#include <QtCore/QStringList>
#include <QtCore/QVariantList>
#include <QtCore/QVariantMap>

#include <functional>
#include <memory>
#include <type_traits>

namespace bus
{

class WatchMailbox;

/// \brief A subscription of TrelanClient::watch(), to end it with TrelanClient::unwatch().
///
/// As a pending operation it is done when the watch is whole: every stored object that its wildcard
/// takes in has been handed over. It ends as NotConnected where the bus is away, and the watch
/// takes effect all the same, once the bus is back.
class TRELAN_EXPORT TrelanWatch : public TrelanPending
{
public:
    TrelanWatch() = default;

private:
    friend class TrelanClient;
    TrelanWatch(const TrelanPending &pending, quint64 number,
                const std::weak_ptr<WatchMailbox> &mailbox);

    quint64 _number = 0;
    std::weak_ptr<WatchMailbox> _mailbox;
};

/// \brief The bus for an application: publish, watch, load, send, call and serve, with one object.
///
/// Connects by itself, comes back by itself, and says in state() whether the bus is there. Works
/// beside a TrelanController in one process, and beside other clients, each with a name of its own
/// and a bus of its own.
///
/// Threads: any thread may call any function at any time; none of them waits for the bus. Both
/// channels are served by a thread that the client owns. Functions that are handed over run in the
/// thread of the context that comes with them, by its event loop, and never after the context is
/// deleted. Signals are emitted in the client's own thread: connect them with a context, so that
/// they arrive in its thread. A client may be made before the QCoreApplication is, and connects
/// once there is one. The destructor ends what has not ended as NotConnected, and waits for what
/// has been asked already for at most 200 ms.
///
/// What is asked before the first attempt to connect has ended waits for it. While the bus is away
/// the newest value of each stored object waits, for any time and within bounds (see
/// TrelanClientSettings), and replaces an older one, which ends as Replaced; everything else ends
/// as NotConnected at once, unless TrelanOptions::orWaitForBus() says otherwise. At most 10,000
/// operations and 16 MiB of them are on their way at a time, unless the settings say otherwise: one
/// more ends as Refused.
///
/// Nothing is sent twice, except with TrelanOptions::orRepeat(): what was sent and not answered
/// when the connection was lost ends as NotConnected. A stored object, whose newest value counts
/// however often it is published, is sent again.
///
/// \code
/// bus::TrelanClient client("thermometer");
/// client.publish("room.kitchen", { { "celsius", 21.5 } });
/// client.watch("room.*", this, [](const bus::TrelanObject &room) { qInfo() << room.name(); });
/// client.call("files", "count", { { "list", list } })
///     .then(this, [](const QVariantMap &answer) { qInfo() << answer["n"]; });
/// client.serve("count", this, [](const bus::TrelanCommand &call) {
///     return QVariantMap { { "n", call.params().size() } };
/// });
/// \endcode
class TRELAN_EXPORT TrelanClient : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString clientName READ clientName CONSTANT)
    Q_PROPERTY(bus::TrelanConnectionState state READ state NOTIFY stateChanged)

public:
    using ObjectFunction = std::function<void(const TrelanObject &)>;
    using NameFunction = std::function<void(const QString &)>;
    using CallFunction = std::function<void(const TrelanCall &)>;

    /// A client called \a clientName, 1 to 255 characters, which no other program on the bus may
    /// have. The bus is the one of this machine, at its default ports.
    explicit TrelanClient(const QString &clientName, QObject *parent = nullptr);
    TrelanClient(const QString &clientName, const TrelanClientSettings &settings,
                 QObject *parent = nullptr);
    ~TrelanClient() override;

    QString clientName() const;
    TrelanConnectionState state() const;

    /// Waits until the bus is there, for so many milliseconds at most. True if it is. As
    /// TrelanPending::wait(), for threads without an event loop.
    bool waitForConnected(int milliseconds = 30000) const;

    /// Publishes a stored object. Done when the bus has it.
    TrelanPending publish(const QString &name, const QVariantMap &content,
                          const TrelanOptions &options = {});
    /// Publishes an object with its own flags; an id and a time are filled in where they are
    /// missing.
    TrelanPending publish(const TrelanObject &object, const TrelanOptions &options = {});
    /// Publishes the properties of a Q_GADGET as a stored object; see TrelanGadget.
    template <typename Gadget>
    std::enable_if_t<TrelanGadget::isGadget<Gadget>(), TrelanPending>
    publish(const QString &name, const Gadget &gadget, const TrelanOptions &options = {})
    {
        QString fault;
        const QVariantMap content = TrelanGadget::toMap(gadget, &fault);
        return fault.isEmpty() ? publish(name, content, options) : refuse(fault);
    }

    /// Removes stored objects. Done when the bus has forgotten them; names that it does not know
    /// are no failure.
    TrelanPending remove(const QStringList &names, const TrelanOptions &options = {});
    TrelanPending remove(const QString &name, const TrelanOptions &options = {});

    /// The stored object of this name; Refused where there is none.
    TrelanReply<TrelanObject> load(const QString &name, const TrelanOptions &options = {});
    /// All stored objects that \a wildcard takes in, by name; none is no failure.
    TrelanReply<TrelanObjects> loadAll(const QString &wildcard, const TrelanOptions &options = {});

    /// Who is on the bus, or has something waiting there, sorted by name: a map for each, with the
    /// keys that docs/protocol.md lists under `clients`. Refused by a bus that lacks that feature.
    TrelanReply<QVariantList> clients(const TrelanOptions &options = {});

    /// Sends a text to another client. Done when the bus has it; NobodyThere where the receiver is
    /// not connected.
    TrelanPending send(const QString &receiver, const QString &text,
                       const TrelanOptions &options = {});
    /// Sends a message with its own flags: one that is Stored waits for its receiver.
    TrelanPending send(const TrelanMessage &message, const TrelanOptions &options = {});

    /// \brief Calls a command of another client. Done with the answer's parameters.
    ///
    /// NobodyThere where the client is not connected, AnswerError where the answer has the
    /// parameter "error". Nothing of a call is kept anywhere when its time is over, provided that
    /// the bus has the feature "limit". With TrelanOptions::orRepeat() it may be carried out again.
    TrelanReply<QVariantMap> call(const QString &receiver, const QString &command,
                                  const QVariantMap &params = {},
                                  const TrelanOptions &options = {});

    /// \brief Hands over every stored object that \a wildcard takes in, and then every change.
    ///
    /// \a changed takes a const TrelanObject &, or a const reference to a Q_GADGET, optionally with
    /// the object behind it; an object that does not fit the gadget is logged, with the property
    /// and the reason, and left out. \a removed takes the name of an object that is not there any
    /// more. After a reconnection the watch is whole again: it is told what has changed, and what
    /// was removed, meanwhile. A value that it has seen is not handed over again. Events, which are
    /// objects that are not stored, are handed over as they come, and are missed while the bus is
    /// away.
    ///
    /// The watch ends with its context, with unwatch() and with the client. Several watches, of
    /// whatever wildcards, are told of a change once each. A bus that lacks the features "now" and
    /// "removals" is asked for the objects instead, and tells of removals only after a
    /// reconnection.
    template <typename Function>
    TrelanWatch watch(const QString &wildcard, const QObject *context, Function changed,
                      const NameFunction &removed = {})
    {
        if constexpr (std::is_invocable_v<Function &, const TrelanObject &>)
            return watchObjects(wildcard, context, changed, removed);
        else
            return watchAs(wildcard, context, std::function(changed), removed);
    }

    /// As watch(), with the gadget's type said: \c watch<Room>("room.*", this, showRoom).
    template <typename Gadget, typename Function>
    std::enable_if_t<TrelanGadget::isGadget<Gadget>(), TrelanWatch>
    watch(const QString &wildcard, const QObject *context, Function changed,
          const NameFunction &removed = {})
    {
        return watchAs(wildcard, context, std::function<void(const Gadget &)>(changed), removed);
    }

    /// Ends a watch: nothing is handed over to it by events that the context has yet to handle.
    /// Done when the bus has ended the subscription, or need not. To end one that has ended is no
    /// failure.
    TrelanPending unwatch(const TrelanWatch &watch);

    /// \brief Answers calls of \a command with \a function, in the thread of \a context.
    ///
    /// \a function takes a const TrelanCommand & and returns a QVariantMap, which is the answer; or
    /// it takes a const TrelanCall &, by which it answers whenever it likes. A call that needs an
    /// answer gets exactly one. A later function for a command takes the place of the one before.
    template <typename Function>
    void serve(const QString &command, const QObject *context, Function function)
    {
        if constexpr (std::is_invocable_v<Function &, const TrelanCall &>) {
            static_assert(
                std::is_void_v<std::invoke_result_t<Function &, const TrelanCall &>>,
                "a function that takes a TrelanCall answers by it and returns nothing; to "
                "return the answer, take a const TrelanCommand &");
            serveCalls(command, context, function);
        } else {
            serveCalls(command, context, [function](const TrelanCall &call) mutable {
                call.answer(function(call.command()));
            });
        }
    }
    /// Ends it: later calls reach commandReceived() again.
    void stopServing(const QString &command);

    /// Answers a call that commandReceived() has brought. Done when the bus has the answer;
    /// NobodyThere where the caller is gone.
    TrelanPending answer(const TrelanCommand &call, const QVariantMap &result,
                         const TrelanOptions &options = {});

Q_SIGNALS:
    /// Whether the bus is there has changed, or why it is not.
    void stateChanged(bus::TrelanConnectionState state);
    /// A call that nobody serves, or a command to everybody that a watch takes in. A call that
    /// needs an answer is refused by the client where nothing is connected to this signal.
    void commandReceived(bus::TrelanCommand command);
    /// A text from another client.
    void messageReceived(bus::TrelanMessage message);

private:
    template <typename Result, typename Gadget, typename... Object>
    TrelanWatch watchAs(const QString &wildcard, const QObject *context,
                        const std::function<Result(Gadget, Object...)> &changed,
                        const NameFunction &removed)
    {
        using Type = std::decay_t<Gadget>;
        static_assert(TrelanGadget::isGadget<Type>(),
                      "watch() hands over a TrelanObject or a Q_GADGET");
        const auto read = [changed](const TrelanObject &object) {
            Type gadget;
            QString fault;
            if (!TrelanGadget::fromMap(object.content(), gadget, &fault))
                return warnOfMisfit(object, fault);
            if constexpr (sizeof...(Object) == 0)
                changed(gadget);
            else
                changed(gadget, object);
        };
        return watchObjects(wildcard, context, read, removed);
    }
    TrelanWatch watchObjects(const QString &wildcard, const QObject *context,
                             const ObjectFunction &changed, const NameFunction &removed);
    void serveCalls(const QString &command, const QObject *context, const CallFunction &function);
    static TrelanPending refuse(const QString &fault);
    static void warnOfMisfit(const TrelanObject &object, const QString &fault);

    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace bus
