#pragma once

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <memory>

class Arrivals;

/// \brief A connection that publishes. One thread, and every method waits.
class Publisher
{
public:
    Publisher() = default;
    virtual ~Publisher() = default;
    Q_DISABLE_COPY(Publisher)

    /// Returns when the server has acknowledged it; false if it has not.
    virtual bool publish(const QVariantMap &content) = 0;
    /// The same \a number times, without waiting in between; returns when all are acknowledged.
    virtual bool publishAll(const QVariantMap &content, int number) = 0;

    /// \name What receivers get
    /// The same as above, where the bus has one way for both.
    /// @{
    virtual bool pass(const QVariantMap &content) { return publish(content); }
    virtual bool passAll(const QVariantMap &content, int number)
    {
        return publishAll(content, number);
    }
    /// @}

    /// Returns when the server has acknowledged what receivers get, too.
    virtual bool attend(const QVariantMap &content) { return publish(content); }

    /// Calls another program with \a content, and returns when that has answered with it. False if
    /// there is no such thing.
    virtual bool call(const QVariantMap & /*content*/) { return false; }
};

/// \brief A connection that has subscribed to what is published, and counts it.
class Receiver
{
public:
    Receiver() = default;
    virtual ~Receiver() = default;
    Q_DISABLE_COPY(Receiver)
};

/// \brief One of the buses that are measured, as a program of it sees it.
///
/// Its server, its publisher and its receivers are three processes. Each makes one of these.
class Bus
{
public:
    Bus() = default;
    virtual ~Bus() = default;
    Q_DISABLE_COPY(Bus)

    /// Null if the server cannot be reached.
    virtual std::unique_ptr<Publisher> connectPublisher() = 0;

    /// Returns when what is published from now on reaches it, or null. It counts in \a arrivals
    /// once the application has the content.
    virtual std::unique_ptr<Receiver> connectReceiver(int number, Arrivals &arrivals) = 0;

    /// Lets the receivers receive, for good.
    virtual void receive() { QCoreApplication::exec(); }

    /// The server, where it is no program of its own: listens, tells its address by ready(), and
    /// serves for good. Returns only if it cannot.
    virtual void serve() {}
};

/// The bus called \a name, whose server is at \a address; empty for the server itself. Null if
/// this program knows none of that name.
std::unique_ptr<Bus> makeBus(const QString &name, const QStringList &address);

/// Tells who has started this process that it can be used, and at what address.
void ready(const QStringList &address = {});
