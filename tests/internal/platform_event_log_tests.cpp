// What both rooms of the event log promise. The texts themselves can only be read back with the system's own tools.
#include "platform/Platform_EventLog.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace Velmor;

TEST(PlatformEventLog, ANullHandleIsRefused)
{
    EXPECT_FALSE(Platform::WriteEvent(nullptr, Platform::EEventType::Error, 0x60000000u, "text"));
    Platform::CloseEventSource(nullptr);
}

TEST(PlatformEventLog, AnOpenSourceTakesEventsOfEveryType)
{
    void* const source = Platform::OpenEventSource("Orbisk");
    if (source == nullptr)
        GTEST_SKIP() << "this system has no event log";
    EXPECT_TRUE(Platform::WriteEvent(source, Platform::EEventType::Information, 0x60000000u, "information"));
    EXPECT_TRUE(Platform::WriteEvent(source, Platform::EEventType::Warning, 0x60000001u, "100% %s %n"));
    EXPECT_TRUE(Platform::WriteEvent(source, Platform::EEventType::Error, 0x6000FFFFu, ""));
    Platform::CloseEventSource(source);
}

TEST(PlatformEventLog, TheLongestTextIsTaken)
{
    EXPECT_GE(Platform::GetLongestEventText(), 1024u);
    EXPECT_LE(Platform::GetLongestEventText(), 31839u); // what no system takes is not promised
    void* const source = Platform::OpenEventSource("Orbisk");
    if (source == nullptr)
        GTEST_SKIP() << "this system has no event log";
    std::string const text(Platform::GetLongestEventText(), 'x');
    EXPECT_TRUE(Platform::WriteEvent(source, Platform::EEventType::Information, 0x60000003u, text.c_str()));
    Platform::CloseEventSource(source);
}

TEST(PlatformEventLog, SourcesMayBeOpenedAgainAndSideBySide)
{
    void* const first = Platform::OpenEventSource("Orbisk");
    void* const second = Platform::OpenEventSource("Orbisk");
    if (first == nullptr)
        GTEST_SKIP() << "this system has no event log";
    Platform::CloseEventSource(first);
    EXPECT_TRUE(Platform::WriteEvent(second, Platform::EEventType::Information, 0x60000002u, "still open"));
    Platform::CloseEventSource(second);
}

} // namespace
