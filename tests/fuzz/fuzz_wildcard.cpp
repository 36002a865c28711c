#include "values/wildcard.h"
#include "wildcardreference.h"

/// Name and wildcard, separated by the first line break.
extern "C" int LLVMFuzzerTestOneInput(const quint8 *data, size_t size)
{
    const QString text = QString::fromLatin1(reinterpret_cast<const char *>(data), int(size));
    const QString name = text.section(QLatin1Char('\n'), 0, 0);
    const QString wildcard = text.section(QLatin1Char('\n'), 1);
    if (bus::wildcard::matches(name, wildcard) != reference::matches(name, wildcard))
        qFatal("name \"%s\", wildcard \"%s\"", qPrintable(name), qPrintable(wildcard));
    return 0;
}
