#include "statepublisher.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QHostAddress>

#include <cstdio>

namespace hoststate
{

using bus::TrelanQueryHandler;

StatePublisher::StatePublisher(const QString &clientName)
    : _handler(clientName)
{}

bool StatePublisher::open()
{
    _hasBus = _handler.open();
    if (!_hasBus)
        say(reason());
    return _hasBus;
}

void StatePublisher::publish(const QList<bus::TrelanObject> &objects)
{
    // Only events tell that the connection has dropped, and this program has no event loop.
    QCoreApplication::processEvents();
    if (!_handler.isOpen() && !reopen())
        return;
    for (const bus::TrelanObject &object : objects) {
        if (publish(object) || _handler.lastFailure() == TrelanQueryHandler::Refused)
            continue;
        say(reason() + "; trying again");
        _hasBus = false;
        // A late reply would be taken for the reply to the next request.
        _handler.close();
        return;
    }
}

bool StatePublisher::wasRefused() const
{
    return _refused > 0 || _handler.lastFailure() == TrelanQueryHandler::Refused;
}

bool StatePublisher::reopen()
{
    if (_handler.open()) {
        say("the bus is back");
        _hasBus = true;
    } else if (_hasBus) {
        say(reason() + "; trying again");
        _hasBus = false;
    }
    return _hasBus;
}

bool StatePublisher::publish(const bus::TrelanObject &object)
{
    if (_handler.publish(object)) {
        ++_published;
        _refusals.remove(object.name());
        return true;
    }
    if (_handler.lastFailure() == TrelanQueryHandler::Refused) {
        ++_refused;
        if (_refusals.value(object.name()) != reason())
            say(object.name() + ": " + reason());
        _refusals.insert(object.name(), reason());
    }
    return false;
}

QString StatePublisher::reason() const
{
    const QString place = QString("%1:%2")
                              .arg(QHostAddress(TrelanQueryHandler::queryHost()).toString())
                              .arg(TrelanQueryHandler::queryPort());
    switch (_handler.lastFailure()) {
    case TrelanQueryHandler::Refused:
        return QString("refused by the bus: %1 %2")
            .arg(_handler.lastError().error())
            .arg(_handler.lastError().description());
    case TrelanQueryHandler::Timeout:
        return QString("the bus at %1 does not answer").arg(place);
    case TrelanQueryHandler::Framing:
        return QString("what %1 answers is not what a bus says").arg(place);
    default:
        return QString("no bus at %1 (start one with trelanbusd)").arg(place);
    }
}

void say(const QString &text)
{
    QString line = "hoststate: " + text;
    for (QChar &character : line) {
        if (character.category() == QChar::Other_Control ||
            character.category() == QChar::Other_Format)
            character = '?';
    }
    std::fprintf(stderr, "%s\n", line.toUtf8().constData());
}

} // namespace hoststate
