#pragma once

#include "session.h"

#include <QtCore/QVector>

namespace trelanctl
{

/// \brief The commands watch and wait: what is stored now and what changes from then on, one line
/// an object. watch prints all of it and what is removed until the end, wait prints the first line.
class Watching
{
public:
    explicit Watching(const Arguments &arguments);

    ExitCode run();

private:
    void show(const bus::TrelanObject &object);
    void showRemoval(const QString &name);

    const Arguments _arguments;
    const bool _firstOnly;
    const int _width;
    QVector<int> _columns;
    Session _session;
};

} // namespace trelanctl
