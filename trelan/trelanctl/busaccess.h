#pragma once

#include "arguments.h"

#include <trelanqueryhandler.h>

#include <QtCore/QString>

namespace trelanctl
{

/// Why a command ends, and what to say about it. Done without a text means that it goes on.
struct Outcome
{
    ExitCode code = Done;
    QString text;
};

/// "127.0.0.1:43535", or whatever the command line says; escaped.
QString busPlace(const Arguments &arguments, quint16 port);

/// \brief Tells the library where the bus is; to be called before anything is opened.
///
/// A host name is looked up here, which may take a while.
Outcome locateBus(const Arguments &arguments);

/// Tells the library where the bus is, and opens \a handler.
Outcome connectTo(bus::TrelanQueryHandler &handler, const Arguments &arguments);

/// Why the last operation of \a handler failed. \a connected: whether there had been a bus before.
Outcome failureOf(const bus::TrelanQueryHandler &handler, const Arguments &arguments,
                  bool connected);

/// The bus has answered a request with \a error.
Outcome refusal(const Arguments &arguments, const bus::TrelanError &error);

/// Nothing listens on that port.
Outcome noBus(const Arguments &arguments, quint16 port);

/// Something listens, but says nothing.
Outcome silentBus(const Arguments &arguments);

/// The bus knows nobody of that name who would take a message.
Outcome noClient(const QString &name);

} // namespace trelanctl
