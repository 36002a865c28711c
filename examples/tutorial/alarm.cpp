#include <sharedobjectsstorage.h>
#include <trelancontroller.h>
#include <trelanmsgworker.h>
#include <trelanqueryworker.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

double celsius(const bus::TrelanObject &room)
{
    return room.content().value("celsius").toDouble();
}

class Alarm : public bus::TrelanController
{
public:
    Alarm()
        : TrelanController("alarm", nullptr)
    {
        connect(this, &Alarm::unprocessedObject, this, &Alarm::hear);
        connect(this, &Alarm::unprocessedCommand, this, &Alarm::answer);
    }

protected:
    bool doStart() override
    {
        auto *messages = new bus::TrelanMsgWorker(clientName(), bus::TrelanMsgWorker::StoreObjects);
        auto *queries = new bus::TrelanQueryWorker(clientName(), {"room.*"});
        queries->setOptions(bus::TrelanQueryWorker::SubscribeNow);
        return initWorkers(messages, queries);
    }

    void prepareQueryWorker(bus::TrelanQueryWorker *worker) override
    {
        connect(this, &Alarm::sendCommand, worker, &bus::TrelanQueryWorker::sendCommand,
                Qt::QueuedConnection);
    }

private:
    void hear(const bus::TrelanObject &room)
    {
        if (celsius(room) > 30)
            qWarning() << "too hot:" << room.name();
    }

    void answer(const bus::TrelanCommand &call)
    {
        if (call.name() != "warmest" || !call.needAnswer())
            return;
        bus::TrelanObject warmest;
        for (const bus::TrelanObject &room : bus::SharedObjectsStorage().getAllObjects()) {
            if (warmest.name().isEmpty() || celsius(room) > celsius(warmest))
                warmest = room;
        }
        bus::TrelanCommand reply;
        reply.setName(call.name());
        reply.setReciever(call.sender());
        reply.setParentUid(call.uid());
        reply.setParams({{"room", warmest.name()}, {"celsius", celsius(warmest)}});
        emit sendCommand(reply);
    }
};

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);
    bus::TrelanTransport::setCoding(bus::TrelanTransport::Light);

    Alarm alarm;
    alarm.setBus("127.0.0.1", 43537, 43535);
    return QCoreApplication::exec();
}
