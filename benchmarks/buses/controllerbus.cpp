#include "controllerbus.h"

#include "arrivals.h"
#include "readings.h"

#include <trelancontroller.h>
#include <trelanmessagereciever.h>
#include <trelanmsgworker.h>
#include <trelanqueryhandler.h>
#include <trelanqueryworker.h>

#include <QtCore/QDeadlineTimer>

namespace
{

class Controller : public bus::TrelanController
{
public:
    using TrelanController::TrelanController;

    /// Returns when both workers have started, which includes to subscribe.
    bool connectTo(const QStringList &wildcards)
    {
        constexpr int PATIENCE_MS = 5000;
        _wildcards = wildcards;
        setBus(QStringLiteral("127.0.0.1"), bus::TrelanMessageReciever::msgPort(),
               bus::TrelanQueryHandler::queryPort());
        const QDeadlineTimer deadline(PATIENCE_MS);
        while (_started < 2 && !deadline.hasExpired())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, PATIENCE_MS);
        return _started == 2;
    }

protected:
    bool doStart() override
    {
        return initWorkers(new bus::TrelanMsgWorker(clientName()),
                           new bus::TrelanQueryWorker(clientName(), _wildcards));
    }
    void processStartedWorker() override { ++_started; }

private:
    QStringList _wildcards;
    int _started = 0;
};

class ControllerPublisher : public Publisher
{
public:
    bool open() { return _controller.connectTo({}); }

    bool publish(const QVariantMap &content) override
    {
        emit _controller.publish(readings::next(content));
        return true;
    }
    bool publishAll(const QVariantMap &content, int number) override
    {
        for (int i = 0; i < number; ++i)
            publish(content);
        return true;
    }

private:
    Controller _controller {QStringLiteral("publisher")};
};

class ControllerReceiver : public Receiver
{
public:
    ControllerReceiver(const QString &name, Arrivals &arrivals)
        : _controller(name)
    {
        QObject::connect(
            &_controller, &Controller::unprocessedObject, &_controller,
            [&arrivals](const bus::TrelanObject &object) { arrivals.count(object.content()); });
    }
    bool open() { return _controller.connectTo({readings::WILDCARD}); }

private:
    Controller _controller;
};

} // namespace

std::unique_ptr<Publisher> ControllerBus::connectPublisher()
{
    auto publisher = std::make_unique<ControllerPublisher>();
    return publisher->open() ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> ControllerBus::connectReceiver(int number, Arrivals &arrivals)
{
    auto receiver = std::make_unique<ControllerReceiver>(readings::receiver(number), arrivals);
    return receiver->open() ? std::move(receiver) : nullptr;
}
