// Diagnostics where something is missing: the service is the less for it, the log says so, and nothing else fails.
#include "StrictJSON.h"
#include "TestHeap.h"
#include "support/AssertionSwitch.h"
#include "support/ChildOutput.h"
#include "support/DebuggedProcess.h"
#include "support/HiddenDebuggingLibrary.h"
#include "support/SystemTraits.h"

#include <gtest/gtest.h>

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/system.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using namespace Velmor;
using TestSupport::CountOf;
using TestSupport::CPrintingLogger;
using TestSupport::SChildResult;
using VlmTest::CStrictJSON;
using VlmTest::SJSONValue;

void StartLogging()
{
    Memory::Initialize(0, 0);
    static CPrintingLogger logger;
    Log::Initialize(&logger);
}

// ---- no debugging library ----

SChildResult RunWithoutDebuggingLibrary(char const* child)
{
    TestSupport::CHiddenDebuggingLibrary const hidden;
    return TestSupport::RunChild(child);
}

#define VLM_REQUIRE_HIDING()                                                                                           \
    if (!TestSupport::CHiddenDebuggingLibrary::IsPossible())                                                           \
    GTEST_SKIP() << "the debugging library cannot be hidden here"

VLMCORE_CHILD(LogsStacks)
{
    StartLogging();
    Log::Callstack(0);
    Log::Callstack(0);
    Debug::SCallstackLine frame;
    int local = 0;
    Debug::ResolveSymbol(&local, frame);
    return frame.address == reinterpret_cast<u64>(&local) && std::strcmp(frame.file, "unknown_file") == 0 ? 7 : 8;
}

TEST(WithoutADebuggingLibrary, StacksAreLoggedWithoutNamesAndTheLogSaysWhyOnce)
{
    VLM_REQUIRE_HIDING();
    SChildResult const child = RunWithoutDebuggingLibrary("LogsStacks");
    EXPECT_EQ(child.exitCode, 7u) << child.standardError;
    std::string const& output = child.standardOutput;
    EXPECT_EQ(CountOf(output, "2: No debugging library ("), 1u) << output;
    EXPECT_EQ(CountOf(output, "): call stacks lack names and lines.\n"), 1u) << output;
    // Both stacks are there, frame for frame.
    EXPECT_GE(CountOf(output, "1: <"), 4u) << output;
    EXPECT_EQ(CountOf(output, "1: <"), CountOf(output, "> unknown_file(0) : ")) << output;
}

TEST(WithADebuggingLibrary, TheLogSaysNothingOfTheKind)
{
    SChildResult const child = TestSupport::RunChild("LogsStacks");
    EXPECT_EQ(child.exitCode, 7u);
    EXPECT_EQ(CountOf(child.standardOutput, "No debugging library"), 0u) << child.standardOutput;
    EXPECT_EQ(CountOf(child.standardOutput, "degraded_tests.cpp("), 2u) << child.standardOutput;
}

constexpr char const* EventsPath = "degraded_events.json";
constexpr char const* StacksPath = "degraded_stacks.json";

VLMCORE_CHILD(RecordsEvents)
{
    StartLogging();
    CFileMemoryLogger logger(EventsPath, StacksPath, 16);
    Memory::InitializeLog(&logger);
    for (int round = 0; round < 20; ++round)
        Memory::Free(Memory::Malloc(100, EHeap::Pool));
    Memory::ReleaseLog();
    return 7;
}

[[nodiscard]] SJSONValue ReadDocument(char const* path)
{
    std::ifstream file(path, std::ios::binary);
    std::string const content(std::istreambuf_iterator<char>(file), {});
    return CStrictJSON::Parse(content);
}

TEST(WithoutADebuggingLibrary, MemoryEventsAreRecorded)
{
    VLM_REQUIRE_HIDING();
    SChildResult const child = RunWithoutDebuggingLibrary("RecordsEvents");
    EXPECT_EQ(child.exitCode, 7u) << child.standardError;
    EXPECT_EQ(CountOf(child.standardOutput, "2: No debugging library ("), 1u) << child.standardOutput;
    EXPECT_EQ(ReadDocument(EventsPath)["Data"].items.size(), 40u);
    EXPECT_GE(ReadDocument(StacksPath)["Data"].items.size(), 2u);
    std::remove(EventsPath);
    std::remove(StacksPath);
}

VLMCORE_CHILD(Crashes)
{
    StartLogging();
    Debug::InstallCrashHandler();
    asm volatile("movl $1, (%0)" : : "r"(std::uintptr_t{0}) : "memory");
    return 99;
}

TEST(WithoutADebuggingLibrary, ACrashIsReportedWithoutADump)
{
    VLM_REQUIRE_HIDING();
    TestSupport::CAssertionSwitch const suppressed(1);
    SChildResult const child = RunWithoutDebuggingLibrary("Crashes");
    std::string const& output = child.standardOutput;
    EXPECT_EQ(child.exitCode, 1u) << output << child.standardError;
    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(CountOf(output, "2: Failed to write minidump "), 1u) << output;
    EXPECT_EQ(CountOf(output, "2: Unhandled exception.||Access violation (0xc0000005) at 0x"), 1u) << output;
    EXPECT_EQ(CountOf(output, "||unknown_file (0)|"), 1u) << output;
}

// ---- a module without symbols ----

struct SCapture {
    void* addresses[Debug::MaxFrames] = {};
    unsigned count = 0;
};

void CaptureHere(void* argument)
{
    auto& capture = *static_cast<SCapture*>(argument);
    unsigned hash = 0;
    capture.count = Debug::Backtrace(capture.addresses, &hash);
}

TEST(AModuleWithoutSymbols, HasItsNameOnTheStackAndNoLines)
{
    void* const module = System::LoadLibrary("plugins/nameless");
    ASSERT_NE(module, nullptr);
    using Function = void (*)(void (*)(void*), void*);
    auto const callBack = reinterpret_cast<Function>(System::GetLibraryFunctionPtr(module, "CallBack"));
    ASSERT_NE(callBack, nullptr);
    SCapture capture;
    callBack(&CaptureHere, &capture);

    Debug::SCallstackLine frames[Debug::MaxFrames];
    Debug::ResolveSymbols(capture.addresses, frames, capture.count);
    unsigned nameless = 0;
    bool isCallerNamed = false;
    for (unsigned index = 0; index < capture.count; ++index) {
        if (std::strstr(frames[index].module, "nameless") != nullptr) {
            ++nameless;
            EXPECT_STREQ(frames[index].file, "unknown_file");
            EXPECT_EQ(frames[index].line, 0u);
            EXPECT_EQ(std::strstr(frames[index].symbol, "CallInside"), nullptr) << frames[index].symbol;
        }
        else if (nameless > 0)
            isCallerNamed = isCallerNamed || std::strstr(frames[index].symbol, "TestBody") != nullptr;
    }
    EXPECT_EQ(nameless, 2u);
    EXPECT_TRUE(isCallerNamed) << "the stack ends in the module";
    System::FreeLibrary(module);
}

// ---- nobody to ask ----

VLMCORE_CHILD(AssertsWithALog)
{
    StartLogging();
    Debug::Assert("thing.cpp", 42, "Title.", "message");
    return 5;
}

TEST(WithNobodyToAsk, TheLogSaysThatTheProcessEnds)
{
    if (!TestSupport::SystemTraits.questionNeedsTerminal && TestSupport::CanAnswerQuestions())
        GTEST_SKIP() << "a child can always show a box here";
    SChildResult const child = TestSupport::RunChild("AssertsWithALog");
    EXPECT_EQ(child.exitCode, 1u);
    EXPECT_EQ(CountOf(child.standardOutput, "2: Title.||message||Thread "), 1u) << child.standardOutput;
    EXPECT_EQ(CountOf(child.standardOutput, "2: Nobody could be asked what to do: the process ends.\n"), 1u)
        << child.standardOutput;
}

} // namespace
