#include "trelantransport.h"

#include "trelanframe.h"

#include <atomic>

namespace bus
{

namespace
{

std::atomic<TrelanTransport::Mode> _mode {TrelanTransport::Paced};
std::atomic<TrelanTransport::Coding> _coding {TrelanTransport::Classic};
std::atomic<qint64> _maxPayload {16 * 1024 * 1024};
std::atomic<int> _patience {30000};

} // namespace

TrelanTransport::Mode TrelanTransport::mode()
{
    return _mode;
}

void TrelanTransport::setMode(Mode mode)
{
    _mode = mode;
}

TrelanTransport::Coding TrelanTransport::coding()
{
    return _coding;
}

void TrelanTransport::setCoding(Coding coding)
{
    _coding = coding;
}

qint64 TrelanTransport::maxPayload()
{
    return _maxPayload;
}

void TrelanTransport::setMaxPayload(qint64 bytes)
{
    _maxPayload = qMax<qint64>(bytes, 1);
}

qint64 TrelanTransport::maxInflatedSize()
{
    return TrelanFrame::maxInflatedSize();
}

void TrelanTransport::setMaxInflatedSize(qint64 bytes)
{
    TrelanFrame::setMaxInflatedSize(bytes);
}

int TrelanTransport::patience()
{
    return _patience;
}

void TrelanTransport::setPatience(int milliseconds)
{
    _patience = qMax(milliseconds, 1);
}

} // namespace bus
