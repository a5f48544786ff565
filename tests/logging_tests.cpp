// The log front end, the console and system loggers, and the two reports.
#include "TestHeap.h"
#include "support/DebuggedProcess.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/logging.h>
#include <vlmcore/system.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Velmor;
using testing::ElementsAre;

struct SMessage {
    Log::EMessage::Type type;
    u64 timestamp;
    std::string text;
    EStringEncoding::Type encoding;
};

class CRecordingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type type, u64 timestamp, CString const& message) override
    {
        CMutableString const utf8 = message.ToUTF8();
        messages.push_back({type, timestamp, static_cast<char const*>(utf8.GetData()), message.GetEncoding()});
    }

    [[nodiscard]] std::vector<std::string> GetTexts() const
    {
        std::vector<std::string> texts;
        for (SMessage const& message : messages)
            texts.push_back(message.text);
        return texts;
    }

    std::vector<SMessage> messages;
};

/// Counts; takes no memory.
class CCountingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type, u64, CString const&) override { ++count; }

    int count = 0;
};

class LoggingTest : public testing::Test {
protected:
    void TearDown() override { static_cast<void>(Log::Release()); }

    /// Installs the logger and forgets the opening message.
    void Install()
    {
        Log::Initialize(&m_logger);
        m_logger.messages.clear();
    }

    CRecordingLogger m_logger;
};

[[nodiscard]] u64 CountAllocations()
{
    Memory::SStatistics statistics;
    EXPECT_TRUE(Memory::GetStatistics(statistics));
    u64 count = statistics.allocationCount;
    for (Memory::SStatistics::SPool const& pool : statistics.pools)
        count += pool.allocationCount;
    return count;
}

// ---- the singleton ----

TEST_F(LoggingTest, NothingHappensWithoutALogger)
{
    u64 const before = CountAllocations();
    Log::Debug("a");
    Log::Info("b");
    Log::Warning("c");
    Log::Error("d");
    Log::DebugF("%d", 1);
    Log::InfoF("%d", 2);
    Log::WarningF("%d", 3);
    Log::ErrorF("%d", 4);
    Log::Callstack(0);
    Log::SystemInfo();
    EXPECT_EQ(Log::Release(), nullptr);
    EXPECT_EQ(CountAllocations(), before);
}

TEST_F(LoggingTest, WithoutALoggerTheArgumentsAreNotFormatted)
{
    std::string const tooLong(5000, 'x');
    Log::InfoF("%s", tooLong.c_str());
}

TEST_F(LoggingTest, InitializeWithNullLeavesTheLogUninstalled)
{
    Log::Initialize(nullptr);
    Log::Info("lost");
    EXPECT_EQ(Log::Release(), nullptr);
}

TEST_F(LoggingTest, InitializeWithNullUninstallsWithoutAWord)
{
    Install();
    Log::Initialize(nullptr);
    EXPECT_EQ(Log::Release(), nullptr);
    EXPECT_TRUE(m_logger.messages.empty());
}

TEST_F(LoggingTest, TheFirstMessageIsLogStart)
{
    Log::Initialize(&m_logger);
    ASSERT_EQ(m_logger.messages.size(), 1u);
    EXPECT_EQ(m_logger.messages[0].text, "Log start.");
    EXPECT_EQ(m_logger.messages[0].type, Log::EMessage::Info);
}

TEST_F(LoggingTest, ReleaseWritesLogEndAndReturnsTheLogger)
{
    Install();
    EXPECT_EQ(Log::Release(), &m_logger);
    ASSERT_EQ(m_logger.messages.size(), 1u);
    EXPECT_EQ(m_logger.messages[0].text, "Log end.");
    EXPECT_EQ(m_logger.messages[0].type, Log::EMessage::Info);
    Log::Info("lost");
    EXPECT_EQ(m_logger.messages.size(), 1u);
    EXPECT_EQ(Log::Release(), nullptr);
}

TEST_F(LoggingTest, AReplacedLoggerHearsNothing)
{
    Install();
    CRecordingLogger second;
    Log::Initialize(&second);
    EXPECT_TRUE(m_logger.messages.empty());
    EXPECT_THAT(second.GetTexts(), ElementsAre("Log start."));
    EXPECT_EQ(Log::Release(), &second);
}

// ---- messages ----

TEST_F(LoggingTest, EveryFunctionHasItsLevel)
{
    Install();
    Log::Debug("a");
    Log::Info("b");
    Log::Warning("c");
    Log::Error("d");
    Log::DebugF("%s", "e");
    Log::InfoF("%s", "f");
    Log::WarningF("%s", "g");
    Log::ErrorF("%s", "h");
    EXPECT_THAT(m_logger.GetTexts(), ElementsAre("a", "b", "c", "d", "e", "f", "g", "h"));
    std::vector<u32> types;
    for (SMessage const& message : m_logger.messages)
        types.push_back(message.type);
    EXPECT_THAT(types, ElementsAre(0u, 1u, 2u, 3u, 0u, 1u, 2u, 3u));
}

TEST_F(LoggingTest, TheTimeStampIsTheMillisecondsOfTheCall)
{
    Install();
    u64 const before = static_cast<u64>(System::GetTimeMs());
    Log::Info("now");
    u64 const after = static_cast<u64>(System::GetTimeMs());
    ASSERT_EQ(m_logger.messages.size(), 1u);
    EXPECT_GE(m_logger.messages[0].timestamp, before);
    EXPECT_LE(m_logger.messages[0].timestamp, after);
}

TEST_F(LoggingTest, TheLoggerGetsTheTextInItsOwnEncoding)
{
    Install();
    Log::Info(u"\u00e4");
    Log::Info(U"\u00e4");
    Log::Info(u8"\u00e4");
    ASSERT_EQ(m_logger.messages.size(), 3u);
    EXPECT_EQ(m_logger.messages[0].encoding, EStringEncoding::UTF16);
    EXPECT_EQ(m_logger.messages[1].encoding, EStringEncoding::UTF32);
    EXPECT_EQ(m_logger.messages[2].encoding, EStringEncoding::UTF8);
    EXPECT_THAT(m_logger.GetTexts(), ElementsAre("\xC3\xA4", "\xC3\xA4", "\xC3\xA4"));
}

TEST_F(LoggingTest, WhatTheLoggerThrowsReachesTheCaller)
{
    class CThrowingLogger : public ILogger {
    public:
        void Write(Log::EMessage::Type, u64, CString const&) override
        {
            if (armed)
                throw std::runtime_error("full");
        }
        bool armed = false;
    } logger;
    Log::Initialize(&logger);
    logger.armed = true;
    EXPECT_THROW(Log::Info("x"), std::runtime_error);
    logger.armed = false;
    EXPECT_EQ(Log::Release(), &logger);
}

// ---- the printf-style functions ----

TEST_F(LoggingTest, FormatsLikePrintf)
{
    Install();
    Log::WarningF("%u blocks, %s, %5.2f, 100%%", 7u, "text", 1.5);
    EXPECT_THAT(m_logger.GetTexts(), ElementsAre("7 blocks, text,  1.50, 100%"));
}

TEST_F(LoggingTest, FormattingTakesNoHeapMemory)
{
    CCountingLogger logger;
    Log::Initialize(&logger);
    u64 const before = CountAllocations();
    Log::InfoF("%d %s", 5, "text");
    EXPECT_EQ(CountAllocations(), before);
    EXPECT_EQ(logger.count, 2);
    EXPECT_EQ(Log::Release(), &logger);
}

TEST_F(LoggingTest, AFormattedTextMayHave2047Bytes)
{
    Install();
    std::string const longest(2047, 'x');
    Log::ErrorF("%s", longest.c_str());
    EXPECT_THAT(m_logger.GetTexts(), ElementsAre(longest));
}

/// Exit codes of the child below.
constexpr int ReceivedText = 7;
constexpr int ReceivedEmptyText = 5;

VLMCORE_CHILD(LogsTooLongAText)
{
    CRecordingLogger logger;
    Memory::Initialize(0, 0);
    Log::Initialize(&logger);
    std::string const tooLong(2048, 'x');
    Log::DebugF("%s", tooLong.c_str());
    return logger.messages.back().text.empty() ? ReceivedEmptyText : ReceivedText;
}

TEST(LoggingEnd, AFormattedTextOf2048BytesIsNeverCut)
{
    // Linux: abort. Windows: what the C runtime does, which is to end the process or, in some versions, to come back
    // with an empty text.
    auto const child = TestSupport::RunChild("LogsTooLongAText");
    ASSERT_TRUE(child.started);
    EXPECT_THAT(child.exitCode,
                testing::AnyOf(128u + 6u, 0xC0000417u, 0xC000000Du, static_cast<u32>(ReceivedEmptyText)));
}

// ---- console ----

[[nodiscard]] std::string PrintToConsole(Log::EMessage::Type type, u64 timestamp, CString const& message)
{
    CConsoleLogger logger;
    testing::internal::CaptureStdout();
    logger.Write(type, timestamp, message);
    return testing::internal::GetCapturedStdout();
}

TEST(ConsoleLogger, PrintsTimeStampLevelAndMessage)
{
    EXPECT_EQ(PrintToConsole(Log::EMessage::Debug, 0, "quiet"), "0: [Debug] quiet\n");
    EXPECT_EQ(PrintToConsole(Log::EMessage::Info, 1234, "x"), "1234: [Info] x\n");
    EXPECT_EQ(PrintToConsole(Log::EMessage::Warning, 18446744073709551615u, "50% done %s"),
              "18446744073709551615: [Warning] 50% done %s\n");
    EXPECT_EQ(PrintToConsole(Log::EMessage::Error, 7, ""), "7: [Error] \n");
}

TEST(ConsoleLogger, PrintsEveryEncodingAsUtf8)
{
    EXPECT_EQ(PrintToConsole(Log::EMessage::Info, 1, u"\u00e4\u20ac"), "1: [Info] \xC3\xA4\xE2\x82\xAC\n");
    EXPECT_EQ(PrintToConsole(Log::EMessage::Info, 1, U"\u00e4\u20ac"), "1: [Info] \xC3\xA4\xE2\x82\xAC\n");
    EXPECT_EQ(PrintToConsole(Log::EMessage::Info, 1, u8"\u00e4\u20ac"), "1: [Info] \xC3\xA4\xE2\x82\xAC\n");
}

TEST(ConsoleLogger, PrintsANullTextAsEmpty)
{
    EXPECT_EQ(PrintToConsole(Log::EMessage::Info, 1, nullptr), "1: [Info] \n");
}

TEST(ConsoleLogger, PrintsLongMessagesWhole)
{
    std::string const text(5000, 'y');
    EXPECT_EQ(PrintToConsole(Log::EMessage::Info, 1, text.c_str()), "1: [Info] " + text + "\n");
}

// ---- system log ----

TEST(SystemLogger, TakesMessagesWhetherOrNotThereIsALog)
{
    CSystemLogger logger;
    logger.Write(Log::EMessage::Debug, 0, "debug");
    logger.Write(Log::EMessage::Info, 0, u"info");
    logger.Write(Log::EMessage::Warning, 0, "100% %s %n");
    logger.Write(Log::EMessage::Error, 0, nullptr);
}

// ---- reports ----

TEST_F(LoggingTest, SystemInfoWritesSixLinesAndOnePerVectorWidth)
{
    System::SCPUInfo info;
    System::GetCPUInfo(info);
    std::vector<std::string> expected{
        "CPU:     64Bit Intel x" + std::to_string(info.processorCount) + "\n",
        "Memory:  " + std::to_string(System::GetMaxPhysicalMemory() / 1048576) + " MB\n",
        "Virtual: " + std::to_string(System::GetMaxVirtualMemory() / 1048576) + " MB\n",
    };
    for (int level = 0; level < 3; ++level)
        expected.push_back("L" + std::to_string(level + 1) + "Cache: " + std::to_string(info.cacheSize[level] / 1024) +
                           " KB / " + std::to_string(info.cacheLineSize[level]) + " B\n");
    if (info.hasVector2 != 0)
        expected.push_back("Vector2: available\n");
    if (info.hasVector4 != 0)
        expected.push_back("Vector4: available\n");
    if (info.hasVector8 != 0)
        expected.push_back("Vector8: available\n");

    Install();
    Log::SystemInfo();
    EXPECT_EQ(m_logger.GetTexts(), expected);
    for (SMessage const& message : m_logger.messages) {
        EXPECT_EQ(message.type, Log::EMessage::Info);
        EXPECT_EQ(message.timestamp, m_logger.messages[0].timestamp);
    }
}

/// The lines that Callstack(skip) writes from here.
[[nodiscard]] std::vector<SMessage> GetCallstack(unsigned char skip)
{
    CRecordingLogger logger;
    Log::Initialize(&logger);
    logger.messages.clear();
    Log::Callstack(skip);
    std::vector<SMessage> const lines = logger.messages;
    static_cast<void>(Log::Release());
    return lines;
}

TEST(LogCallstack, WritesALinePerFrame)
{
    std::vector<SMessage> const lines = GetCallstack(0);
    ASSERT_GT(lines.size(), 3u);
    for (SMessage const& line : lines) {
        EXPECT_TRUE(std::regex_match(line.text, std::regex("<.*, 0x[0-9A-F]+> .*\\([0-9]+\\) : .*\n"))) << line.text;
        EXPECT_EQ(line.type, Log::EMessage::Info);
        EXPECT_EQ(line.timestamp, lines[0].timestamp);
    }
}

TEST(LogCallstack, LeavesOutTheInnermostFrames)
{
    u64 const all = GetCallstack(0).size();
    ASSERT_GT(all, 3u);
    EXPECT_EQ(GetCallstack(1).size(), all - 1);
    EXPECT_EQ(GetCallstack(static_cast<unsigned char>(all - 1)).size(), 1u);
    EXPECT_EQ(GetCallstack(static_cast<unsigned char>(all)).size(), 0u);
    EXPECT_EQ(GetCallstack(255).size(), 0u);
}

} // namespace
