#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <functional>
#include <vector>

class Arrivals;
class Publisher;

/// \brief What is measured, the same for every bus. In the process of the publisher.
class Measuring
{
public:
    /// What is wanted; times in milliseconds.
    struct Order
    {
        QString kind;
        int bytes = 0;
        int receivers = 0;
        int time = 0;
    };

    /// \a server are the processes whose CPU time counts.
    Measuring(Publisher &publisher, Arrivals &arrivals, const QList<int> &server);

    /// \brief Measures one of the kinds, after some that are not counted:
    ///
    /// acknowledged, one at a time; pipelined, many under way; passed, one at a time until the last
    /// receiver has it; streamed, many under way to the receivers. With contents in turn, to one
    /// receiver: attended, each acknowledged before the next, while they arrive beside it; awaited,
    /// as passed.
    ///
    /// Figures are microseconds of one of them, and how many there are in a second: of what is
    /// acknowledged or, where receivers are, of what has arrived. One's share is the time of those
    /// that are under way together, until all of them have arrived, by their number. Of contents in
    /// turn "sent" is how many there were in all, those that are not counted included. Empty if the
    /// bus did not do it.
    QJsonObject run(const Order &order);

private:
    /// Nanoseconds that one takes, negative if it fails.
    using Once = std::function<qint64()>;

    /// Processor time in nanoseconds.
    struct Used
    {
        qint64 server = 0;
        qint64 publisher = 0;
        qint64 receivers = 0;
    };

    void prepare(const Order &order);
    const QVariantMap &next();
    Once once(const Order &order);
    Once many(const Order &order, int number);
    bool attend(int number);
    bool delivered(const std::function<bool()> &publish, int number);
    int batch(const Order &order, qint64 one) const;
    static bool repeat(const Once &step, int milliseconds, size_t atLeast,
                       std::vector<qint64> &times);
    Used used() const;
    QJsonObject figures(const Order &order, std::vector<qint64> &times, int number,
                        const Used &before) const;

    Publisher &_publisher;
    Arrivals &_arrivals;
    const QList<int> _server;
    std::vector<QVariantMap> _contents; // one, or those that are sent in turn
    std::vector<qint64> _acknowledged;  // times of those attended
    size_t _turn = 0;
    int _bytes = 0;
};
