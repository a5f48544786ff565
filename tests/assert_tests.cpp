#include "support/AssertionSwitch.h"
#include "support/ChildOutput.h"
#include "support/DebuggedProcess.h"
#include "support/SystemTraits.h"

#include <gtest/gtest.h>

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/threads.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Velmor;
using TestSupport::CPrintingLogger;
using TestSupport::EAnswer;
using TestSupport::RunChild;
using TestSupport::SChildOptions;
using TestSupport::SChildResult;

namespace {

SChildResult RunAnswering(std::string const& name, std::vector<EAnswer> answers)
{
    SChildOptions options;
    options.answers = std::move(answers);
    return RunChild(name, options);
}

#define VLM_REQUIRE_USER()                                                                                             \
    if (!TestSupport::CanAnswerQuestions())                                                                            \
    GTEST_SKIP() << "no display to show a question on"

} // namespace

// The custom handler

namespace {

std::string g_seen;
bool g_result = false;

bool KeepReport(char const* file, long line, char const* title, char const* format, char* arguments)
{
    char text[64];
    for (int i = 0; i < 2; ++i) { // the list can be formatted as often as one likes
        u64 const length = Debug::FormatArguments(text, sizeof text, format, arguments);
        EXPECT_EQ(length, std::strlen(text));
    }
    char cut[6];
    EXPECT_EQ(Debug::FormatArguments(cut, sizeof cut, format, arguments), 5u);
    g_seen += std::string(file) + "(" + std::to_string(line) + ") " + title + ": " + text + " [" + cut + "]\n";
    return g_result;
}

bool Throw(char const*, long, char const*, char const*, char*)
{
    throw std::runtime_error("from the handler");
}

struct SRestoreHandler {
    ~SRestoreHandler() { Debug::SetAssertHandler(nullptr); }
};

} // namespace

TEST(AssertHandler, GetsEveryAssertionAndGivesTheResult)
{
    SRestoreHandler const restore;
    Debug::SetAssertHandler(&KeepReport);
    g_seen.clear();
    g_result = true;
    EXPECT_TRUE(Debug::Assert("a.cpp", 12, "Title", "%d and %s, %.2f", 5, "text", 1.5));
    g_result = false;
    EXPECT_FALSE(Debug::Assert("b.cpp", 2147483647L, "Other", "%s %lld", "long", -1234567890123456789LL));
    EXPECT_EQ(g_seen, "a.cpp(12) Title: 5 and text, 1.50 [5 and]\n"
                      "b.cpp(2147483647) Other: long -1234567890123456789 [long ]\n");
}

TEST(AssertHandler, ThatThrowsLeavesTheLockFree)
{
    SRestoreHandler const restore;
    Debug::SetAssertHandler(&Throw);
    EXPECT_THROW(Debug::Assert("a.cpp", 1, "Title", "text"), std::runtime_error);
    Debug::SetAssertHandler(&KeepReport);
    g_result = true;
    bool result = false;
    std::thread other([&result] { result = Debug::Assert("a.cpp", 2, "Title", "longer text"); });
    other.join(); // would not end
    EXPECT_TRUE(result);
}

namespace {

bool AssertAgain(char const*, long line, char const*, char const*, char*)
{
    return line == 3 || Debug::Assert("a.cpp", line + 1, "Title", "text");
}

} // namespace

TEST(AssertHandler, MayAssertItself)
{
    SRestoreHandler const restore;
    Debug::SetAssertHandler(&AssertAgain);
    EXPECT_TRUE(Debug::Assert("a.cpp", 1, "Title", "text"));
}

namespace {

std::atomic<int> g_inside{0};
std::atomic<int> g_calls{0};
std::atomic<bool> g_overlapped{false};

bool CountInside(char const*, long, char const*, char const*, char*)
{
    if (++g_inside != 1)
        g_overlapped = true;
    std::this_thread::yield();
    ++g_calls;
    --g_inside;
    return false;
}

} // namespace

TEST(AssertHandler, IsCalledByOneThreadAtATime)
{
    SRestoreHandler const restore;
    Debug::SetAssertHandler(&CountInside);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i)
                Debug::Assert("a.cpp", 1, "Title", "text");
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(g_calls, 800);
    EXPECT_FALSE(g_overlapped);
}

TEST(FormatArguments, TakesNullTextsAndNoRoom)
{
    char buffer[4] = "abc";
    EXPECT_EQ(Debug::FormatArguments(buffer, 0, "x", nullptr), 0u);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(Debug::FormatArguments(nullptr, 4, "x", nullptr), 0u);
    EXPECT_EQ(Debug::FormatArguments(buffer, sizeof buffer, nullptr, nullptr), 0u);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(Debug::FormatArguments(buffer, sizeof buffer, "12345", nullptr), 3u);
    EXPECT_STREQ(buffer, "123");
}

// The question and its answers

VLMCORE_CHILD(AssertsOnce)
{
    bool const result = Debug::Assert("src/thing.cpp", 42, "Title.", "%s %d", "message", 7);
    std::printf("thread %u\nresult %d\n", Thread::GetId(), result ? 1 : 0);
    return 5;
}

TEST(Assert, ShowsTitleMessageThreadAndPlaceUnderTheProgramsPath)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsOnce", {EAnswer::Ignore});
    ASSERT_EQ(child.questions.size(), 1u);
    unsigned thread = 0;
    ASSERT_EQ(std::sscanf(child.standardOutput.c_str(), "thread %u", &thread), 1);
    EXPECT_EQ(child.questions[0], "Title.\n\nmessage 7\n\nThread " + std::to_string(thread) + "\nsrc/thing.cpp (42)\n");
    EXPECT_EQ(child.captions[0], TestSupport::GetProgramPath());
    EXPECT_EQ(child.exitCode, 5u);
}

TEST(Assert, IgnoreReturnsFalse)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsOnce", {EAnswer::Ignore});
    EXPECT_NE(child.standardOutput.find("result 0\n"), std::string::npos);
    EXPECT_EQ(child.exitCode, 5u);
}

TEST(Assert, AbortEndsTheProcessWithOne)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsOnce", {EAnswer::Abort});
    EXPECT_EQ(child.questions.size(), 1u);
    EXPECT_EQ(child.exitCode, 1u);
    EXPECT_EQ(child.standardOutput, "");
}

TEST(Assert, RetryReturnsTrueOnlyUnderADebugger)
{
    VLM_REQUIRE_USER();
    auto const alone = RunAnswering("AssertsOnce", {EAnswer::Retry});
    EXPECT_NE(alone.standardOutput.find("result 0\n"), std::string::npos);
    SChildOptions options;
    options.answers = {EAnswer::Retry};
    options.debugged = true;
    auto const debugged = RunChild("AssertsOnce", options);
    EXPECT_NE(debugged.standardOutput.find("result 1\n"), std::string::npos);
    EXPECT_EQ(debugged.exitCode, 5u);
}

#define VLM_NOINLINE __attribute__((noinline))

namespace {

VLM_NOINLINE bool AssertAt(int site)
{
    bool const result = Debug::Assert("a.cpp", site, "Title.", "site %d", site);
    std::printf("%d", result ? 1 : 0);
    return result;
}

/// One call stack per depth.
VLM_NOINLINE void AssertAtDepth(int depth, int site)
{
    if (depth == 0)
        AssertAt(site);
    else
        AssertAtDepth(depth - 1, site);
    std::printf(".");
}

int volatile g_two = 2;

} // namespace

VLMCORE_CHILD(AssertsTwiceAtOneSite)
{
    for (int i = 0; i < g_two; ++i)
        AssertAt(i);
    AssertAtDepth(1, 2);
    return 0;
}

TEST(Assert, IgnoredForGoodIsNotAskedAgainAtThatSite)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsTwiceAtOneSite", {EAnswer::IgnoreForGood, EAnswer::Ignore});
    ASSERT_EQ(child.questions.size(), 2u);
    EXPECT_NE(child.questions[0].find("site 0"), std::string::npos);
    EXPECT_NE(child.questions[1].find("site 2"), std::string::npos);
    EXPECT_EQ(child.standardOutput, "000..");
}

TEST(Assert, IgnoredOnceIsAskedAgain)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsTwiceAtOneSite", {EAnswer::Ignore, EAnswer::Ignore, EAnswer::Ignore});
    EXPECT_EQ(child.questions.size(), 3u);
    EXPECT_EQ(child.exitCode, 0u);
}

namespace {

/// Stacks that differ within the frames that count: the path through two functions spells the site's number.
VLM_NOINLINE void AssertByBits(int site, int bits);
VLM_NOINLINE void AssertByZero(int site, int bits)
{
    AssertByBits(site, bits);
    std::printf(".");
}
VLM_NOINLINE void AssertByOne(int site, int bits)
{
    AssertByBits(site, bits);
    std::printf(",");
}
VLM_NOINLINE void AssertByBits(int site, int bits)
{
    if (bits == 0)
        AssertAt(site);
    else if ((site >> (bits - 1) & 1) != 0)
        AssertByOne(site, bits - 1);
    else
        AssertByZero(site, bits - 1);
    std::printf(" ");
}

} // namespace

VLMCORE_CHILD(AssertsAtSixtyFiveSitesTwice)
{
    // A site's identity is a sum of addresses, which does not know their order: each site has its own number of bits
    // and its own number of ones among them. Ten bits give 2 + 3 + ... + 11 = 65.
    for (int round = 0; round < g_two; ++round)
        for (int bits = 1; bits <= 10; ++bits)
            for (int ones = 0; ones <= bits; ++ones)
                AssertByBits((1 << ones) - 1, bits);
    return 0;
}

TEST(Assert, SixtyFourSitesCanBeIgnoredForGood)
{
    VLM_REQUIRE_USER();
    // The first round ignores 65 sites; in the second only the last of them asks again.
    std::vector<EAnswer> answers(65, EAnswer::IgnoreForGood);
    answers.push_back(EAnswer::Ignore);
    auto const child = RunAnswering("AssertsAtSixtyFiveSitesTwice", answers);
    ASSERT_EQ(child.questions.size(), 66u);
    EXPECT_NE(child.questions[64].find("site 1023"), std::string::npos) << child.questions[64];
    EXPECT_NE(child.questions[65].find("site 1023"), std::string::npos) << child.questions[65];
    EXPECT_EQ(child.exitCode, 0u);
}

VLMCORE_CHILD(AssertsAtLength)
{
    Debug::Assert("a.cpp", 1, "Title.", "%s", std::string(3000, 'm').c_str());
    Debug::Assert("a.cpp", 1, std::string(5000, 't').c_str(), "text");
    return 0;
}

TEST(Assert, CutsWhatDoesNotFit)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsAtLength", {EAnswer::Ignore, EAnswer::Ignore});
    ASSERT_EQ(child.questions.size(), 2u);
    EXPECT_EQ(child.questions[0].substr(0, 8 + 1024), "Title.\n\n" + std::string(1023, 'm') + "\n");
    EXPECT_EQ(child.questions[1], std::string(4095, 't'));
    EXPECT_EQ(child.exitCode, 0u);
}

VLMCORE_CHILD(AssertsWithNulls)
{
    return Debug::Assert(nullptr, -1, nullptr, static_cast<char const*>(nullptr)) ? 1 : 0;
}

TEST(Assert, TakesNullTextsAsEmpty)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsWithNulls", {EAnswer::Ignore});
    ASSERT_EQ(child.questions.size(), 1u);
    EXPECT_EQ(child.questions[0].substr(0, 11), "\n\n\n\nThread ");
    EXPECT_EQ(child.questions[0].substr(child.questions[0].size() - 7), "\n (-1)\n");
    EXPECT_EQ(child.exitCode, 0u);
}

TEST(Assert, WithNobodyToAskIsAnAbort)
{
    if (!TestSupport::SystemTraits.questionNeedsTerminal)
        GTEST_SKIP() << "a child can always show a box here";
    auto const child = RunChild("AssertsOnce");
    EXPECT_EQ(child.exitCode, 1u);
    EXPECT_EQ(child.standardOutput, "");
    EXPECT_EQ(child.standardError, "");
}

// Suppression

TEST(Assert, SuppressedEndsTheProcessAtOnceAndSilently)
{
    TestSupport::CAssertionSwitch const suppressed(1);
    SChildOptions options;
    options.answers = {EAnswer::Ignore};
    options.timeoutSeconds = 20;
    auto const child = RunChild("AssertsOnce", options);
    EXPECT_EQ(child.questions.size(), 0u);
    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(child.exitCode, 1u);
    EXPECT_EQ(child.standardOutput, "");
    EXPECT_EQ(child.standardError, "");
}

TEST(Assert, SwitchSetToZeroDoesNotSuppress)
{
    VLM_REQUIRE_USER();
    TestSupport::CAssertionSwitch const off(0);
    auto const child = RunAnswering("AssertsOnce", {EAnswer::Ignore});
    EXPECT_EQ(child.questions.size(), 1u);
    EXPECT_EQ(child.exitCode, 5u);
}

VLMCORE_CHILD(AssertsWithHandlerThenReport)
{
    Debug::SetAssertHandler([](char const*, long, char const*, char const*, char*) { return true; });
    std::printf("%d", Debug::Assert("a.cpp", 1, "Title.", "text") ? 1 : 0);
    Debug::SetAssertHandler(nullptr);
    std::printf("%d", Debug::Assert("a.cpp", 2, "Title.", "text") ? 1 : 0);
    return 0;
}

TEST(Assert, HandlerIsNotSuppressedAndNullRestoresTheReport)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsWithHandlerThenReport", {EAnswer::Ignore});
    ASSERT_EQ(child.questions.size(), 1u);
    EXPECT_NE(child.questions[0].find("\na.cpp (2)\n"), std::string::npos);
    EXPECT_EQ(child.standardOutput, "10");
}

// The log

VLMCORE_CHILD(AssertsIntoALog)
{
    Memory::Initialize(0, 0);
    CPrintingLogger logger;
    Log::Initialize(&logger);
    AssertAt(9);
    static_cast<void>(Log::Release());
    Memory::Deinitialize();
    return 0;
}

TEST(Assert, LogsTheReportAndTheStackFromTheAssertionOn)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsIntoALog", {EAnswer::Ignore});
    std::string const& log = child.standardOutput;
    EXPECT_EQ(log.find("1: Log start.\n2: Title.||site 9||Thread "), 0u) << log;
    std::size_t const stack = log.find("|a.cpp (9)|\n");
    ASSERT_NE(stack, std::string::npos) << log;
    std::string const first = log.substr(stack + 12, log.find('\n', stack + 12) - stack - 12);
    EXPECT_EQ(first.substr(0, 4), "1: <");
    EXPECT_NE(first.find("Debug::Assert"), std::string::npos) << first;
    std::string const second = log.substr(log.find(first) + first.size() + 1, 4000);
    EXPECT_NE(second.substr(0, second.find('\n')).find("AssertAt"), std::string::npos) << second;
    EXPECT_EQ(child.exitCode, 0u);
}

namespace {

class CThrowingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type type, u64, CString const&) override
    {
        if (type == Log::EMessage::Warning)
            throw std::runtime_error("from the logger");
    }
};

/// Asserts in the middle of the report of an assertion.
class CAssertingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type type, u64, CString const&) override
    {
        if (type == Log::EMessage::Warning && !std::exchange(m_asserted, true))
            Debug::Assert("inner.cpp", 2, "Inner.", "text");
    }

private:
    bool m_asserted = false;
};

template <class Logger>
int AssertInto()
{
    Memory::Initialize(0, 0);
    Logger logger;
    Log::Initialize(&logger);
    Debug::Assert("outer.cpp", 1, "Outer.", "text");
    static_cast<void>(Log::Release());
    return 0;
}

} // namespace

VLMCORE_CHILD(AssertsIntoAThrowingLog)
{
    return AssertInto<CThrowingLogger>();
}

VLMCORE_CHILD(AssertsIntoAnAssertingLog)
{
    return AssertInto<CAssertingLogger>();
}

TEST(Assert, AsksAlthoughTheLogFails)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsIntoAThrowingLog", {EAnswer::Ignore});
    EXPECT_EQ(child.questions.size(), 1u);
    EXPECT_EQ(child.exitCode, 0u);
}

TEST(Assert, WithinAReportIsReportedToo)
{
    VLM_REQUIRE_USER();
    auto const child = RunAnswering("AssertsIntoAnAssertingLog", {EAnswer::Ignore, EAnswer::Ignore});
    ASSERT_EQ(child.questions.size(), 2u);
    EXPECT_NE(child.questions[0].find("inner.cpp (2)"), std::string::npos);
    EXPECT_NE(child.questions[1].find("outer.cpp (1)"), std::string::npos);
    EXPECT_EQ(child.exitCode, 0u);
}

// The C runtime's reports

TEST(WindowsCRTReportHook, AssertsWithTypeAndMessageAndReportsItHandled)
{
    SRestoreHandler const restore;
    Debug::SetAssertHandler(&KeepReport);
    g_seen.clear();
    g_result = true;
    char message[] = "text";
    int result = 77;
    EXPECT_EQ(Debug::WindowsCRTReportHook(2, message, &result), 1);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Debug::WindowsCRTReportHook(0, nullptr, nullptr), 1);
    EXPECT_EQ(g_seen, "(0) CRT assertion failed.: Type: 2\nMessage: text [Type:]\n"
                      "(0) CRT assertion failed.: Type: 0\nMessage:  [Type:]\n");
}
