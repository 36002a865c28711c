#pragma once

#include <trelantransport.h>

#include <QtCore/QByteArray>
#include <QtTest/QtTest>

/// \brief How the channels of a test program read and write.
///
/// A program that includes this runs twice as a test: with pauses, and, as the environment says,
/// without. The choice is made before main(), and so before any test.
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

/// Skips a test that is about the pauses.
#define SKIP_WITHOUT_PAUSES(reason)                                                                \
    if (transport::PROMPT) {                                                                       \
        QTest::qSkip(reason, __FILE__, __LINE__);                                                  \
        return;                                                                                    \
    }
