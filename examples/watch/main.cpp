#include <trelancontroller.h>
#include <trelanmsgworker.h>
#include <trelanqueryworker.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QJsonDocument>
#include <QtCore/QTextStream>

namespace
{

class Watcher : public bus::TrelanController
{
public:
    explicit Watcher(const QStringList &wildcards)
        : TrelanController("watch")
        , _wildcards(wildcards)
    {}

protected:
    bool doStart() override
    {
        // Wildcards given here are subscribed again whenever the bus comes back.
        return initWorkers(new bus::TrelanMsgWorker(clientName()),
                           new bus::TrelanQueryWorker(clientName(), _wildcards));
    }

private:
    const QStringList _wildcards;
};

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QCommandLineParser options;
    options.addPositionalArgument("wildcard", "What to watch, for example 'room.*'", "wildcard...");
    options.addOptions({{"msg-port", "Message port of the bus", "port", "43537"},
                        {"query-port", "Query port of the bus", "port", "43535"}});
    options.addHelpOption();
    options.process(application);

    Watcher watcher(options.positionalArguments());
    QObject::connect(
        &watcher, &Watcher::unprocessedObject, &watcher, [](const bus::TrelanObject &object) {
            const QJsonDocument content = QJsonDocument::fromVariant(object.content());
            QTextStream(stdout) << object.name() << ' ' << content.toJson(QJsonDocument::Compact)
                                << " from " << object.publisher() << '\n';
        });
    watcher.setBus("127.0.0.1", options.value("msg-port").toUShort(),
                   options.value("query-port").toUShort());
    return QCoreApplication::exec();
}
