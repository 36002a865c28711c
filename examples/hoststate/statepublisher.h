#pragma once

#include <trelanqueryhandler.h>

#include <QtCore/QMap>

namespace hoststate
{

/// \brief Publishes rounds of objects, says once what goes wrong, and comes back by itself when
/// the bus does.
///
/// Blocks as the query channel does; one thread. A value that could not be published is not kept
/// for later: the next round has a newer one.
class StatePublisher
{
public:
    explicit StatePublisher(const QString &clientName);

    /// Connects for the first time; false, and said why, if there is no bus or it refuses.
    bool open();

    void publish(const QList<bus::TrelanObject> &objects);

    /// Whether the last round found a bus.
    bool hasBus() const { return _hasBus; }
    int published() const { return _published; }
    int refused() const { return _refused; }
    /// Whether the bus refused this client, or an object of it, as opposed to not being there.
    bool wasRefused() const;

private:
    bool reopen();
    bool publish(const bus::TrelanObject &object);
    QString reason() const;

    bus::TrelanQueryHandler _handler;
    bool _hasBus = false;
    int _published = 0;
    int _refused = 0;
    QMap<QString, QString> _refusals; ///< by object name, so that each is said once
};

/// One line on standard error, without anything a terminal would obey.
void say(const QString &text);

} // namespace hoststate
