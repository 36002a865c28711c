#pragma once

#include <trelantransport.h>

#include <QtCore/QByteArray>
#include <QtTest/QtTest>

/// \brief How the channels of a test program read and write.
///
/// The programs that include this are run twice: as ever, and without pauses, when the environment
/// says so. Set before main(), so that no test comes before it.
namespace transport
{

inline bool choose()
{
    if (qgetenv("TRELAN_TEST_TRANSPORT") != "prompt")
        return false;
    bus::TrelanTransport::setMode(bus::TrelanTransport::Prompt);
    bus::TrelanTransport::setCoding(bus::TrelanTransport::Light);
    return true;
}

inline const bool PROMPT = choose();

} // namespace transport

/// Skips what is about the pauses themselves.
#define SKIP_WITHOUT_PAUSES(reason)                                                                \
    if (transport::PROMPT) {                                                                       \
        QTest::qSkip(reason, __FILE__, __LINE__);                                                  \
        return;                                                                                    \
    }
