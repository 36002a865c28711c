#pragma once

#include <trelanmessagereciever.h>
#include <trelanqueryhandler.h>

#include <QtCore/QCommandLineParser>

namespace examples
{

/// Takes the options --query-port and --msg-port, for a bus that is not at its usual ports. A
/// program that is to find it there needs none of this, but for the transport without pauses, which
/// every new application should choose.
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
