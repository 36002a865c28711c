#pragma once

#include <trelanclientsettings.h>
#include <trelanmessagereciever.h>
#include <trelanqueryhandler.h>

#include <QtCore/QCommandLineParser>

namespace examples
{

/// Reads the options --query-port and --msg-port, which a program needs only for a bus at other
/// ports than the usual, and --once, for which see rows.h.
inline void parse(QCommandLineParser &options)
{
    options.addOptions({{"query-port", "Query port of the bus", "port", "43535"},
                        {"msg-port", "Message port of the bus", "port", "43537"},
                        {"once", "Print the first rows and end"}});
    options.addHelpOption();
    options.process(QCoreApplication::arguments());
}

/// The bus at these ports.
inline bus::TrelanClientSettings busSettings()
{
    QCommandLineParser options;
    parse(options);
    return bus::TrelanClientSettings().setPorts(options.value("msg-port").toUShort(),
                                                options.value("query-port").toUShort());
}

/// What the program was called with beside options; empty without.
inline QString argument()
{
    QCommandLineParser options;
    parse(options);
    return options.positionalArguments().value(0);
}

/// For channels: chooses these ports, and the transport without pauses, as every new application
/// should.
inline void usePorts()
{
    QCommandLineParser options;
    parse(options);
    bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);
    bus::TrelanTransport::setCoding(bus::TrelanTransport::Light);
    bus::TrelanQueryHandler::setQueryPort(options.value("query-port").toUShort());
    bus::TrelanMessageReciever::setMsgPort(options.value("msg-port").toUShort());
}

} // namespace examples
