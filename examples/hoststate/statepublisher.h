#pragma once

#include <trelanqueryhandler.h>

#include <QtCore/QMap>

namespace hoststate
{

/// \brief Publishes rounds of objects, says once what goes wrong, and comes back by itself when
/// the bus does.
///
/// publish() blocks for as long as the query channel does. A value that could not be published is
/// not kept for later, since the next round has a newer one.
class StatePublisher
{
public:
    explicit StatePublisher(const QString &clientName);

    /// Connects for the first time. If there is no bus, or it refuses, says why and returns false.
    bool open();

    void publish(const QList<bus::TrelanObject> &objects);

    /// Whether the last round found a bus.
    bool hasBus() const { return _hasBus; }
    int published() const { return _published; }
    int refused() const { return _refused; }
    /// Whether there was a bus that refused this client or one of its objects.
    bool wasRefused() const;

private:
    bool reopen();
    bool publish(const bus::TrelanObject &object);
    QString reason() const;

    bus::TrelanQueryHandler _handler;
    bool _hasBus = false;
    int _published = 0;
    int _refused = 0;
    QMap<QString, QString> _refusals; ///< reasons that were said already, by object name
};

/// Prints one line on standard error, without anything that a terminal would obey.
void say(const QString &text);

} // namespace hoststate
