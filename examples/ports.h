#pragma once

#include <trelanmessagereciever.h>
#include <trelanqueryhandler.h>

#include <QtCore/QCommandLineParser>

namespace examples
{

/// Chooses the transport without pauses, as every new application should, and takes the options
/// --query-port and --msg-port, which a program needs only for a bus at other ports than the usual.
inline void usePorts()
{
    QCommandLineParser options;
    options.addOptions({{"query-port", "Query port of the bus", "port", "43535"},
                        {"msg-port", "Message port of the bus", "port", "43537"}});
    options.addHelpOption();
    options.process(QCoreApplication::arguments());
    bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);
    bus::TrelanTransport::setCoding(bus::TrelanTransport::Light);
    bus::TrelanQueryHandler::setQueryPort(options.value("query-port").toUShort());
    bus::TrelanMessageReciever::setMsgPort(options.value("msg-port").toUShort());
}

} // namespace examples
