#include "TestHeap.h"
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
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Velmor;
using TestSupport::CountOf;
using TestSupport::CPrintingLogger;
using TestSupport::RunChild;
using TestSupport::SChildResult;
using TestSupport::SystemTraits;

#define VLM_NOINLINE __attribute__((noinline))

// Ways to crash. By instruction, so that neither the optimizer nor a sanitizer gets in between.

thread_local int volatile g_sink = 0;
int volatile g_never = -1;

VLM_NOINLINE void WriteToNull()
{
    asm volatile("movl $1, (%0)" : : "r"(std::uintptr_t{0}) : "memory");
}

VLM_NOINLINE void ReadFromNowhere()
{
    asm volatile("movl (%0), %%eax" : : "r"(std::uintptr_t{0x123456789000}) : "eax", "memory");
}

VLM_NOINLINE void DivideByZero()
{
    asm volatile("xorl %%edx, %%edx\n\tmovl $1, %%eax\n\txorl %%ecx, %%ecx\n\tidivl %%ecx"
                 :
                 :
                 : "eax", "ecx", "edx", "cc");
}

VLM_NOINLINE void ExecuteNonsense()
{
    asm volatile("ud2");
}

VLM_NOINLINE void ExecuteSystemInstruction()
{
    asm volatile("hlt");
}

VLM_NOINLINE void BreakIntoDebugger()
{
    asm volatile("int3\n\tnop");
}

VLM_NOINLINE int OverflowStack(int depth)
{
    int volatile buffer[512];
    buffer[depth % 512] = depth;
    if (depth == g_never) // never, as far as the compiler is concerned
        return 0;
    int const below = OverflowStack(depth + 1);
    return below + buffer[depth % 512];
}

VLM_NOINLINE void OverflowOwnStack()
{
    g_sink = OverflowStack(0);
}

VLM_NOINLINE void CorruptHeapAndCrash()
{
    // The bookkeeping of the C runtime's heap around some blocks is overwritten, their freed neighbours included.
    std::vector<void*> blocks;
    for (std::size_t size = 16; size < 4096; size += 48)
        blocks.push_back(std::malloc(size));
    for (std::size_t i = 0; i < blocks.size(); i += 2)
        std::free(blocks[i]);
    for (std::size_t i = 1; i < blocks.size(); i += 2) {
        void* target = static_cast<char*>(blocks[i]) - 16;
        std::size_t count = 64;
        asm volatile("rep stosb" : "+D"(target), "+c"(count) : "a"(0xA5) : "memory");
    }
    WriteToNull();
}

namespace {

struct SCrashKind {
    char const* name;
    void (*crash)();
};

constexpr SCrashKind Kinds[] = {
    {"WriteToNull", &WriteToNull},
    {"ReadFromNowhere", &ReadFromNowhere},
    {"DivideByZero", &DivideByZero},
    {"ExecuteNonsense", &ExecuteNonsense},
    {"ExecuteSystemInstruction", &ExecuteSystemInstruction},
    {"BreakIntoDebugger", &BreakIntoDebugger},
    {"OverflowOwnStack", &OverflowOwnStack},
    {"CorruptHeapAndCrash", &CorruptHeapAndCrash},
};

void (*FindCrash(std::string const& name))()
{
    for (SCrashKind const& kind : Kinds)
        if (name == kind.name)
            return kind.crash;
    std::abort();
}

/// Prints the report and lets the crash take its course.
bool PrintReport(char const*, long, char const* title, char const* format, char* arguments)
{
    char text[2048];
    Debug::FormatArguments(text, sizeof text, format, arguments);
    for (char& c : text)
        if (c == '\n')
            c = '|';
    char line[4096];
    int const size = std::snprintf(line, sizeof line, "reported %s %s\n", title, text);
    std::fwrite(line, 1, static_cast<std::size_t>(size), stdout);
    std::fflush(stdout);
    return false;
}

/// The path in the log line about the dump; "" without one.
std::string FindDump(std::string const& output)
{
    static std::string const Mark = "Wrote minidump ";
    std::size_t const mark = output.find(Mark);
    if (mark == std::string::npos)
        return {};
    std::size_t const start = mark + Mark.size();
    return output.substr(start, output.find('\n', start) - start);
}

/// Checks that a dump was written, and removes it; where there are none, that the log says so.
void CheckDump(std::string const& output)
{
    if (!SystemTraits.writesMinidumps) {
        EXPECT_EQ(CountOf(output, "2: Failed to write minidump " + TestSupport::GetProgramPath() + "_"), 1u) << output;
        return;
    }
    std::string const path = FindDump(output);
    std::string program = TestSupport::GetProgramPath();
    program.resize(program.size() - 4);
    EXPECT_EQ(path.substr(0, program.size() + 1), program + "_") << output;
    std::FILE* const file = std::fopen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr) << output;
    char signature[5] = {};
    EXPECT_EQ(std::fread(signature, 1, 4, file), 4u);
    std::fclose(file);
    EXPECT_STREQ(signature, "MDMP");
    std::remove(path.c_str());
}

} // namespace

// The whole report, by the default handler

VLMCORE_CHILD(Crashes)
{
    Memory::Initialize(0, 0);
    static CPrintingLogger logger;
    Log::Initialize(&logger);
    Debug::InstallCrashHandler();
    std::printf("thread %u\n", Thread::GetId());
    std::fflush(stdout);
    FindCrash(TestSupport::GetChildArguments().at(0))();
    return 99;
}

namespace {

void ExpectReport(char const* kind, char const* exception, char const* code, char const* function)
{
    TestSupport::CAssertionSwitch const suppressed(1);
    SChildResult const child = RunChild("Crashes", {kind});
    std::string const& output = child.standardOutput;
    EXPECT_EQ(child.exitCode, 1u) << output << child.standardError;
    EXPECT_FALSE(child.timedOut);
    CheckDump(output);
    std::string const report = std::string("2: Unhandled exception.||") + exception + " (" + code + ") at 0x";
    std::size_t const start = output.find(report);
    ASSERT_NE(start, std::string::npos) << output;
    std::string const line = output.substr(start, output.find('\n', start) - start);
    EXPECT_NE(line.find(function), std::string::npos) << line;
    EXPECT_NE(line.find("crash_tests.cpp ("), std::string::npos) << line;
    unsigned thread = 0;
    std::sscanf(output.c_str() + output.find("thread "), "thread %u", &thread);
    EXPECT_NE(line.find("||Thread " + std::to_string(thread) + "| (0)|"), std::string::npos) << line;
}

} // namespace

TEST(Crash, AccessViolationByWriting)
{
    ExpectReport("WriteToNull", "Access violation", "0xc0000005", "WriteToNull");
}

TEST(Crash, AccessViolationByReading)
{
    ExpectReport("ReadFromNowhere", "Access violation", "0xc0000005", "ReadFromNowhere");
}

TEST(Crash, DivisionByZero)
{
    ExpectReport("DivideByZero", "Int division by zero", "0xc0000094", "DivideByZero");
}

TEST(Crash, IllegalInstruction)
{
    ExpectReport("ExecuteNonsense", "Illegal instruction", "0xc000001d", "ExecuteNonsense");
}

TEST(Crash, PrivilegedInstruction)
{
    bool const named = std::strcmp(SystemTraits.privilegedInstructionException, "Access violation") != 0;
    ExpectReport("ExecuteSystemInstruction", SystemTraits.privilegedInstructionException,
                 named ? "0xc0000096" : "0xc0000005", "ExecuteSystemInstruction");
}

TEST(Crash, Breakpoint)
{
    ExpectReport("BreakIntoDebugger", "Breakpoint triggered", "0x80000003", "BreakIntoDebugger");
}

TEST(Crash, StackOverflow)
{
    if (!SystemTraits.reportsStackOverflow)
        GTEST_SKIP() << "the system ends a thread that overflows its stack";
    ExpectReport("OverflowOwnStack", "Stack overflow", "0xc00000fd", "OverflowStack");
}

// Crashes in bad circumstances: reported once, whatever fails on the way

VLMCORE_CHILD(CrashesWithHandler)
{
    static char buffer[4096]; // the stream must not ask a corrupted heap for one
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    Memory::Initialize(0, 0);
    Debug::InstallCrashHandler();
    Debug::SetAssertHandler(&PrintReport);
    FindCrash(TestSupport::GetChildArguments().at(0))();
    return 99;
}

namespace {

void ExpectOneReport(SChildResult const& child, std::string const& exception)
{
    std::string const& output = child.standardOutput;
    EXPECT_EQ(CountOf(output, "reported Unhandled exception. "), 1u) << output << child.standardError;
    EXPECT_EQ(CountOf(output, "reported Unhandled exception. " + exception + " (0x"), 1u) << output;
    EXPECT_FALSE(child.timedOut);
    EXPECT_NE(child.exitCode, 0u);
    EXPECT_NE(child.exitCode, 99u);
}

} // namespace

TEST(Crash, SystemsOwnHandlingFollows)
{
    SChildResult const child = RunChild("CrashesWithHandler", {"WriteToNull"});
    ExpectOneReport(child, "Access violation");
    EXPECT_EQ(child.exitCode, SystemTraits.accessViolationExitCode);
}

TEST(Crash, AfterHeapCorruption)
{
    ExpectOneReport(RunChild("CrashesWithHandler", {"CorruptHeapAndCrash"}), "Access violation");
}

namespace {

class CCrashingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type type, u64, CString const&) override
    {
        if (type == Log::EMessage::Warning || m_started)
            WriteToNull();
        m_started = true;
    }

private:
    bool m_started = false;
};

class CHangingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type, u64, CString const&) override
    {
        if (m_started)
            for (;;)
                Thread::Sleep(10);
        m_started = true;
    }

private:
    bool m_started = false;
};

template <class Logger>
int CrashWithLogger()
{
    Memory::Initialize(0, 0);
    static Logger logger;
    Log::Initialize(&logger);
    Debug::InstallCrashHandler();
    Debug::SetAssertHandler(&PrintReport);
    WriteToNull();
    return 99;
}

} // namespace

VLMCORE_CHILD(CrashesAgainInTheLogger)
{
    return CrashWithLogger<CCrashingLogger>();
}

VLMCORE_CHILD(HangsInTheLogger)
{
    return CrashWithLogger<CHangingLogger>();
}

TEST(Crash, WithinTheReportEndsOnlyThatPartOfIt)
{
    ExpectOneReport(RunChild("CrashesAgainInTheLogger"), "Access violation");
}

TEST(Crash, WithALoggerThatHangs)
{
    ExpectOneReport(RunChild("HangsInTheLogger"), "Access violation");
}

namespace {

bool CrashInHandler(char const* file, long line, char const* title, char const* format, char* arguments)
{
    PrintReport(file, line, title, format, arguments);
    WriteToNull();
    return false;
}

} // namespace

VLMCORE_CHILD(CrashesAgainInTheAssertHandler)
{
    Memory::Initialize(0, 0);
    Debug::InstallCrashHandler();
    Debug::SetAssertHandler(&CrashInHandler);
    WriteToNull();
    return 99;
}

TEST(Crash, WithinTheAssertHandlerEndsTheReport)
{
    ExpectOneReport(RunChild("CrashesAgainInTheAssertHandler"), "Access violation");
}

namespace {

bool PrintSlowly(char const* file, long line, char const* title, char const* format, char* arguments)
{
    PrintReport(file, line, title, format, arguments);
    Thread::Sleep(300); // the other threads have crashed by now
    return false;
}

} // namespace

VLMCORE_CHILD(CrashesInManyThreads)
{
    Memory::Initialize(0, 0);
    Debug::InstallCrashHandler();
    Debug::SetAssertHandler(&PrintSlowly);
    std::atomic<int> waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&waiting] {
            for (++waiting; waiting != 8;)
                std::this_thread::yield();
            WriteToNull();
        });
    for (std::thread& thread : threads)
        thread.join();
    return 99;
}

TEST(Crash, OfManyThreadsAtOnceIsReportedOnce)
{
    ExpectOneReport(RunChild("CrashesInManyThreads"), "Access violation");
}

namespace {

class CCrashingThread : public IThread {
public:
    explicit CCrashingThread(void (*crash)()) : m_crash(crash) {}

protected:
    void Execute() override { m_crash(); }

private:
    void (*m_crash)();
};

} // namespace

VLMCORE_CHILD(CrashesInASmallThread)
{
    Memory::Initialize(0, 0);
    Debug::InstallCrashHandler();
    Debug::SetAssertHandler(&PrintReport);
    CCrashingThread thread(FindCrash(TestSupport::GetChildArguments().at(0)));
    thread.SetStackSize(16384);
    thread.Run();
    thread.Join();
    return 99;
}

TEST(Crash, InAThreadWithLittleStack)
{
    ExpectOneReport(RunChild("CrashesInASmallThread", {"WriteToNull"}), "Access violation");
}

TEST(Crash, ByStackOverflowInAThreadOfTheLibrary)
{
    if (!SystemTraits.reportsStackOverflow)
        GTEST_SKIP() << "the system ends a thread that overflows its stack";
    ExpectOneReport(RunChild("CrashesInASmallThread", {"OverflowOwnStack"}), "Stack overflow");
}

// The handler by itself

namespace {

/// The system's record of an exception, as far as it is read.
struct SRecord {
    u32 code;
    u32 flags = 0;
    void* next = nullptr;
    void* address;
    u32 parameterCount = 0;
    u64 parameters[15] = {};
};

struct SPointers {
    SRecord* record;
    void* context;
};

std::vector<std::string> g_reports;

bool KeepReport(char const* file, long line, char const* title, char const* format, char* arguments)
{
    char text[2048];
    Debug::FormatArguments(text, sizeof text, format, arguments);
    g_reports.push_back(std::string(file) + "|" + std::to_string(line) + "|" + title + "|" + text);
    return true;
}

/// Removes the dumps that the handler writes, whatever they are called.
class CDumpRemover : public ILogger {
public:
    CDumpRemover() { Log::Initialize(this); }
    ~CDumpRemover() override { static_cast<void>(Log::Release()); }

    void Write(Log::EMessage::Type, u64, CString const& message) override
    {
        std::string const text = static_cast<char const*>(message.GetData());
        m_last = text;
        std::string const path = FindDump(text + "\n");
        if (!path.empty())
            std::remove(path.c_str());
    }

    [[nodiscard]] std::string const& GetLast() const { return m_last; }

private:
    std::string m_last;
};

class WindowsExceptionHandler : public testing::Test {
protected:
    void SetUp() override
    {
        g_reports.clear();
        Debug::SetAssertHandler(&KeepReport);
    }
    void TearDown() override { Debug::SetAssertHandler(nullptr); }

    CDumpRemover m_remover;
};

} // namespace

TEST_F(WindowsExceptionHandler, TakesNullPointers)
{
    EXPECT_EQ(Debug::WindowsExceptionHandler(nullptr), 0);
    SPointers none{nullptr, nullptr};
    EXPECT_EQ(Debug::WindowsExceptionHandler(&none), 0);
    ASSERT_EQ(g_reports.size(), 2u);
    for (std::string const& report : g_reports)
        EXPECT_EQ(report, "|0|Unhandled exception.|Unknown exception (0x0) at 0x0\n\nunknown_file (0)\n");
}

TEST_F(WindowsExceptionHandler, NamesTheExceptionAndTheLowHalfOfItsAddress)
{
    SRecord record{.code = 0xC0000095, .address = reinterpret_cast<void*>(0x7000123456789ABC)};
    SPointers pointers{&record, nullptr};
    EXPECT_EQ(Debug::WindowsExceptionHandler(&pointers), 0);
    record.code = 0xE06D7363;
    EXPECT_EQ(Debug::WindowsExceptionHandler(&pointers), 0);
    ASSERT_EQ(g_reports.size(), 2u);
    EXPECT_EQ(g_reports[0],
              "|0|Unhandled exception.|Integer overflow (0xc0000095) at 0x56789abc\n\nunknown_file (0)\n");
    EXPECT_EQ(g_reports[1],
              "|0|Unhandled exception.|Unknown exception (0xe06d7363) at 0x56789abc\n\nunknown_file (0)\n");
}

TEST_F(WindowsExceptionHandler, SurvivesAnAssertHandlerThatThrows)
{
    Debug::SetAssertHandler(
        [](char const*, long, char const*, char const*, char*) -> bool { throw std::runtime_error("x"); });
    EXPECT_EQ(Debug::WindowsExceptionHandler(nullptr), 0);
    Debug::SetAssertHandler(&KeepReport);
    EXPECT_EQ(Debug::WindowsExceptionHandler(nullptr), 0);
    EXPECT_EQ(g_reports.size(), 1u);
}

// For tests/crash_dump: a dump for an independent reader, left where the log says.

namespace {

bool LeaveAtOnce(char const*, long, char const*, char const*, char*)
{
    std::_Exit(3);
}

} // namespace

VLMCORE_CHILD(LeavesADump)
{
    Memory::Initialize(0, 0);
    static CPrintingLogger logger;
    Log::Initialize(&logger);
    Debug::InstallCrashHandler();
    Debug::SetAssertHandler(&LeaveAtOnce);
    std::printf("thread %x\n", Thread::GetId());
    std::fflush(stdout);
    FindCrash(TestSupport::GetChildArguments().at(0))();
    return 99;
}
