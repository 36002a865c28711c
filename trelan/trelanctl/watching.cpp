#include "watching.h"

#include "objecttable.h"
#include "table.h"
#include "terminaltext.h"

#include <QtCore/QTimer>

namespace trelanctl
{

Watching::Watching(const Arguments &arguments)
    : _arguments(arguments)
    , _firstOnly(arguments.command == Arguments::Wait)
    , _width(_firstOnly ? 0 : Output::terminalWidth()) // a single object is shown in full
    , _session(arguments, arguments.clientName, arguments.names, _firstOnly ? Failed : Done)
{}

ExitCode Watching::run()
{
    QObject::connect(&_session, &Session::unprocessedObject, &_session,
                     [this](const bus::TrelanObject &object) { show(object); });
    QObject::connect(&_session, &Session::objectRemoved, &_session,
                     [this](const QString &name) { showRemoval(name); });
    // A wildcard may take in commands to everybody, which are published like objects.
    QObject::connect(&_session, &Session::unprocessedCommand, &_session,
                     [this](const bus::TrelanCommand &command) {
                         bus::TrelanObject object;
                         if (command.hasDestination() || !command.toTrelanObject(object))
                             return;
                         object.setPublisher(command.sender());
                         show(object);
                     });
    if (_firstOnly) {
        QTimer::singleShot(_arguments.timeoutMs, &_session, [this] {
            if (!_session.wasReady())
                _session.finish(silentBus(_arguments));
            _session.finish({Failed, QStringLiteral("nothing that '%1' takes in came within %2 s")
                                         .arg(terminal::escaped(_arguments.names.first()))
                                         .arg(_arguments.timeoutMs / 1000.0)});
        });
    }
    return _session.run();
}

void Watching::show(const bus::TrelanObject &object)
{
    if (_firstOnly && _session.isFinished())
        return;
    _session.print(_arguments.json ? changeJson(object)
                                   : tableLine(changeCells(object), _columns, _width));
    if (_firstOnly)
        _session.finish({});
}

void Watching::showRemoval(const QString &name)
{
    _session.print(_arguments.json ? removalJson(name)
                                   : tableLine(removalCells(name), _columns, _width));
}

} // namespace trelanctl
