#include "trelanoptions.h"

#include <QtCore/QtGlobal>

namespace bus
{

TrelanOptions TrelanOptions::within(int milliseconds) const
{
    TrelanOptions options = *this;
    options._milliseconds = qMax(milliseconds, 1);
    return options;
}

TrelanOptions TrelanOptions::orWaitForBus() const
{
    TrelanOptions options = *this;
    options._waitsForBus = true;
    return options;
}

TrelanOptions TrelanOptions::orRepeat() const
{
    TrelanOptions options = *this;
    options._mayRepeat = true;
    return options;
}

int TrelanOptions::milliseconds() const
{
    return _milliseconds;
}

bool TrelanOptions::waitsForBus() const
{
    return _waitsForBus;
}

bool TrelanOptions::mayRepeat() const
{
    return _mayRepeat;
}

} // namespace bus
