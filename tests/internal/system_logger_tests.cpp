// The system logger on a seam of this test's own, and the guards of both singletons.
#include "Core_Log.h"
#include "Core_MemoryLog.h"
#include "TestHeap.h"
#include "platform/Platform_EventLog.h"
#include "support/DebuggedProcess.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct SEvent {
    Velmor::Platform::EEventType type;
    Velmor::u32 identifier;
    std::string text;
};

std::string openedSource;
int openCount;
void* handleToGive;
Velmor::u64 longestText;
std::vector<SEvent> events;

} // namespace

// In place of the room's: the linker takes these.
namespace Velmor::Platform {

void* OpenEventSource(char const* source)
{
    openedSource = source;
    ++openCount;
    return handleToGive;
}

void CloseEventSource(void* handle)
{
    EXPECT_EQ(handle, handleToGive);
    --openCount;
}

u64 GetLongestEventText()
{
    return longestText;
}

bool WriteEvent(void* handle, EEventType type, u32 identifier, char const* text)
{
    EXPECT_EQ(handle, handleToGive);
    events.push_back({type, identifier, text});
    return false;
}

} // namespace Velmor::Platform

namespace {

using namespace Velmor;

class SystemLoggerTest : public testing::Test {
protected:
    void SetUp() override
    {
        handleToGive = &events;
        events.clear();
        openCount = 0;
        longestText = 31839;
    }
};

TEST_F(SystemLoggerTest, OpensItsSourceAndClosesIt)
{
    {
        CSystemLogger const logger;
        EXPECT_EQ(openedSource, "Orbisk");
        EXPECT_EQ(openCount, 1);
    }
    EXPECT_EQ(openCount, 0);
}

TEST_F(SystemLoggerTest, LevelsBecomeEventTypes)
{
    CSystemLogger logger;
    logger.Write(Log::EMessage::Debug, 1, "a");
    logger.Write(Log::EMessage::Info, 2, "b");
    logger.Write(Log::EMessage::Warning, 3, "c");
    logger.Write(Log::EMessage::Error, 4, "d");
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(static_cast<u32>(events[0].type), 4u);
    EXPECT_EQ(static_cast<u32>(events[1].type), 4u);
    EXPECT_EQ(static_cast<u32>(events[2].type), 2u);
    EXPECT_EQ(static_cast<u32>(events[3].type), 1u);
    EXPECT_EQ(events[0].text, "a");
    EXPECT_EQ(events[3].text, "d");
}

TEST_F(SystemLoggerTest, IdentifiersCountUpAndStartOver)
{
    CSystemLogger logger;
    for (u32 count = 0; count < 0x10002; ++count)
        logger.Write(Log::EMessage::Info, 0, "x");
    ASSERT_EQ(events.size(), 0x10002u);
    EXPECT_EQ(events[0].identifier, 0x60000000u);
    EXPECT_EQ(events[1].identifier, 0x60000001u);
    EXPECT_EQ(events[0xFFFF].identifier, 0x6000FFFFu);
    EXPECT_EQ(events[0x10000].identifier, 0x60000000u);
    EXPECT_EQ(events[0x10001].identifier, 0x60000001u);
}

TEST_F(SystemLoggerTest, EachLoggerCountsForItself)
{
    CSystemLogger first;
    CSystemLogger second;
    first.Write(Log::EMessage::Info, 0, "x");
    first.Write(Log::EMessage::Info, 0, "x");
    second.Write(Log::EMessage::Info, 0, "x");
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[2].identifier, 0x60000000u);
}

TEST_F(SystemLoggerTest, TextsAreUtf8AndNeverNull)
{
    CSystemLogger logger;
    logger.Write(Log::EMessage::Info, 0, u"\u00e4");
    logger.Write(Log::EMessage::Info, 0, U"\u20ac");
    logger.Write(Log::EMessage::Info, 0, nullptr);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].text, "\xC3\xA4");
    EXPECT_EQ(events[1].text, "\xE2\x82\xAC");
    EXPECT_EQ(events[2].text, "");
}

// The events must be the message whole, each piece of whole characters, and no more pieces than there have to be.
void ExpectWholeInPieces(CString const& message)
{
    events.clear();
    CSystemLogger logger;
    logger.Write(Log::EMessage::Warning, 0, message);
    std::string joined;
    for (std::size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(static_cast<u32>(events[i].type), 2u);
        EXPECT_EQ(events[i].identifier, 0x60000000u + i);
        EXPECT_LE(events[i].text.size(), longestText);
        if (i + 1 < events.size()) {
            EXPECT_GT(events[i].text.size() + 4, longestText);
        }
        ASSERT_FALSE(events[i].text.empty());
        EXPECT_NE(static_cast<unsigned char>(events[i].text[0]) & 0xC0, 0x80); // no tail of a character
        joined += events[i].text;
    }
    CMutableString const whole = message.ToUTF8();
    EXPECT_TRUE(joined == static_cast<char const*>(whole.GetData()));
}

TEST_F(SystemLoggerTest, LinesThatNoEventHoldsArriveWholeInPieces)
{
    // Characters of one to four bytes.
    for (std::string const& pattern :
         {std::string("x"), std::string("\xC3\xA4"), std::string("\xE2\x82\xAC"), std::string("\xF0\x9F\x98\x80"),
          std::string("ab\xC3\xA4\xE2\x82\xAC"
                      "c\xF0\x9F\x98\x80")}) {
        auto const write = [&](u64 size) {
            std::string line;
            while (line.size() < size)
                line += pattern;
            CString const message(line.c_str());
            ExpectWholeInPieces(message);
            ExpectWholeInPieces(message.ToUTF16());
            ExpectWholeInPieces(message.ToUTF32());
        };
        for (u64 const limit : {31839u, 8000u}) {
            longestText = limit;
            write(100000);
        }
        for (longestText = 7; longestText < 27; ++longestText) // ends at each place of the pattern
            write(100);
    }
}

TEST_F(SystemLoggerTest, WhatAnEventHoldsStaysOne)
{
    CSystemLogger logger;
    std::string line(longestText, 'x');
    logger.Write(Log::EMessage::Info, 0, line.c_str());
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].text, line);
    line += 'y';
    logger.Write(Log::EMessage::Error, 0, line.c_str());
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[1].text.size(), longestText);
    EXPECT_EQ(events[2].text, "y");
    EXPECT_EQ(events[2].identifier, 0x60000002u);
    EXPECT_EQ(static_cast<u32>(events[2].type), 1u);
}

TEST_F(SystemLoggerTest, WhatIsNoUtf8IsCutWhereItMustBe)
{
    CSystemLogger logger;
    std::string const line(longestText + 10, '\x80');
    logger.Write(Log::EMessage::Info, 0, line.c_str());
    std::string joined;
    for (SEvent const& event : events) {
        EXPECT_LE(event.text.size(), longestText);
        joined += event.text;
    }
    CMutableString const expected = CString(line.c_str()).ToUTF8();
    EXPECT_TRUE(joined == (expected.IsEmpty() ? "" : static_cast<char const*>(expected.GetData())));
}

TEST_F(SystemLoggerTest, ASystemWithoutALogIsDoneWithout)
{
    handleToGive = nullptr;
    CSystemLogger logger;
    logger.Write(Log::EMessage::Error, 0, "nobody listens");
    EXPECT_EQ(events.size(), 1u);
}

VLMCORE_CHILD(OpensNoEventLog)
{
    Memory::Initialize(0, 0);
    handleToGive = nullptr;
    CSystemLogger const logger;
    return 7;
}

TEST_F(SystemLoggerTest, ASystemWithoutALogIsReportedToTheDebugger)
{
    TestSupport::SChildResult const child = TestSupport::RunDebugged("OpensNoEventLog");
    EXPECT_EQ(child.exitCode, 7u);
    EXPECT_NE(child.debuggerOutput.find("System logger: the system's event log cannot be opened, messages are lost.\n"),
              std::string::npos)
        << child.debuggerOutput;
}

template <class Lookup>
[[nodiscard]] std::string GetGuardText(Lookup lookup)
{
    try {
        static_cast<void>(lookup());
    }
    catch (CException const& exception) {
        return static_cast<char const*>(exception.GetText().GetData());
    }
    return "";
}

TEST(SingletonGuards, LookupsWithoutAnInstanceThrow)
{
    EXPECT_EQ(GetGuardText([] { return &Log::GetLogger(); }),
              "src/VlmCore/Core_Log.cpp(78): CLogSingleton has no instance.");
    EXPECT_EQ(GetGuardText([] { return &MemoryLog::GetLogger(); }),
              "src/VlmCore/Core_MemoryLog.cpp(72): CMemoryLogSingleton has no instance.");
}

TEST(LevelTable, HasTheNamesAndThenTheTwoFramingTexts)
{
    EXPECT_THAT(Log::Texts, testing::ElementsAre(testing::StrEq("Debug"), testing::StrEq("Info"),
                                                 testing::StrEq("Warning"), testing::StrEq("Error"),
                                                 testing::StrEq("{ \"Data\": [\n"), testing::StrEq("]}\n")));
}

} // namespace
