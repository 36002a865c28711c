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
    /// receiver has it; streamed, many under way to the receivers.
    ///
    /// Figures are microseconds of one of them, and how many there are in a second: of what is
    /// acknowledged or, where receivers are, of what has arrived. Empty if the bus did not do it.
    QJsonObject run(const Order &order);

private:
    /// Nanoseconds that one takes, negative if it fails.
    using Once = std::function<qint64()>;

    Once once(const Order &order);
    Once many(const Order &order, int number);
    bool delivered(const std::function<bool()> &publish, int number);
    int batch(const Order &order, qint64 one) const;
    static bool repeat(const Once &step, int milliseconds, size_t atLeast,
                       std::vector<qint64> &times);
    qint64 serverTime() const;

    Publisher &_publisher;
    Arrivals &_arrivals;
    const QList<int> _server;
    QVariantMap _content;
    int _bytes = 0;
};
