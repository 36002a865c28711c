#pragma once

#include "benchfigures.h"
#include "busaccess.h"
#include "output.h"

#include <memory>
#include <vector>

namespace trelanctl
{

class BenchPeer;

/// \brief Measures what this bus does on this machine: acknowledged publishes, the way from a
/// publish to one receiver, and to the last of several.
///
/// It publishes one object after the other, so that the times are those of an idle bus. Nothing is
/// stored, and the names are used by this run alone.
class BenchRunner
{
public:
    explicit BenchRunner(const Arguments &arguments);
    ~BenchRunner();

    ExitCode run();

private:
    struct Receiver
    {
        std::unique_ptr<BenchPeer> query;
        std::unique_ptr<BenchPeer> messages;
    };

    QList<BenchFigures> measureAll();
    bool addReceiver();
    bool measure(BenchFigures &figures);
    bool publishOnce(const QByteArray &frame, qint64 &nanoseconds);
    bool fail(const BenchPeer &peer);

    const Arguments _arguments;
    const QString _name;
    std::unique_ptr<BenchPeer> _publisher;
    std::vector<Receiver> _receivers;
    Output _output;
    Outcome _outcome;
};

} // namespace trelanctl
