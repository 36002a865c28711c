#include "thermostat.h"

#include <sharedobjectsstorage.h>
#include <trelanmsgworker.h>
#include <trelanqueryworker.h>

#include <QtCore/QDebug>

namespace
{

constexpr double COLD = 18;

}

Thermostat::Thermostat(QObject *parent)
    : TrelanController("thermostat", parent)
{
    connect(this, &Thermostat::unprocessedObject, this, &Thermostat::hear);
    connect(this, &Thermostat::unprocessedCommand, this, &Thermostat::answer);
}

bool Thermostat::doStart()
{
    auto *messages = new bus::TrelanMsgWorker(clientName());
    messages->setOptions(bus::TrelanMsgWorker::StoreObjects | bus::TrelanMsgWorker::KeepFilter);
    auto *queries = new bus::TrelanQueryWorker(clientName(), {"room.*"});
    queries->setOptions(bus::TrelanQueryWorker::SubscribeNow);
    return initWorkers(messages, queries);
}

void Thermostat::prepareQueryWorker(bus::TrelanQueryWorker *worker)
{
    // A controller connects sendCommand only if it sends commands.
    connect(this, &Thermostat::sendCommand, worker, &bus::TrelanQueryWorker::sendCommand,
            Qt::QueuedConnection);
}

void Thermostat::hear(const bus::TrelanObject &room)
{
    if (room.content().value("celsius").toDouble() < COLD)
        qWarning() << "it is cold in" << room.name();
}

void Thermostat::answer(const bus::TrelanCommand &call)
{
    if (call.name() != "rooms" || !call.needAnswer())
        return;
    QVariantMap rooms;
    // The message worker stores every object that it is told of.
    for (const bus::TrelanObject &room : bus::SharedObjectsStorage().getAllObjects())
        rooms[room.name()] = room.content().value("celsius");
    bus::TrelanCommand reply;
    reply.setName(call.name());
    reply.setReciever(call.sender());
    reply.setParentUid(call.uid());
    reply.setParams(rooms);
    emit sendCommand(reply);
}
