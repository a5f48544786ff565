// Parts of the crash report that depend on nothing: names of exceptions and dumps, and dumps that cannot be written.
#include "Core_DebugCrash.h"
#include "platform/Platform_Crash.h"

#include <gtest/gtest.h>

#include <string>

using namespace Velmor;

TEST(ExceptionName, IsGivenForEveryKnownCode)
{
    struct {
        u32 code;
        char const* name;
    } const expected[] = {
        {0xC0000005, "Access violation"},
        {0xC0000006, "Page load failed"},
        {0xC0000008, "Invalid handle"},
        {0xC000001D, "Illegal instruction"},
        {0xC0000025, "Cannot continue after previous exception"},
        {0xC0000026, "Exception handler returned an invalid disposition"},
        {0xC000008C, "Array out of bounds"},
        {0xC000008D, "Float value too small"},
        {0xC000008E, "Float division by zero"},
        {0xC000008F, "Float value cannot be displayed as fraction"},
        {0xC0000090, "Invalid floating point operation"},
        {0xC0000091, "Float exponent overflow"},
        {0xC0000092, "Stack overflow due to floating point operation"},
        {0xC0000093, "Float exponent underflow"},
        {0xC0000094, "Int division by zero"},
        {0xC0000095, "Integer overflow"},
        {0xC0000096, "Operation not allowed in current machine mode"},
        {0xC00000FD, "Stack overflow"},
        {0x80000001, "Guard page hit"},
        {0x80000002, "Misaligned datatype"},
        {0x80000003, "Breakpoint triggered"},
        {0x80000004, "Unknown exception"},
        {0xC0000007, "Unknown exception"},
        {0, "Unknown exception"},
        {0xFFFFFFFF, "Unknown exception"},
    };
    for (auto const& [code, name] : expected)
        EXPECT_STREQ(Debug::GetExceptionName(code), name) << std::hex << code;
}

namespace {

std::string BuildPath(char const* executable, u64 size = 320)
{
    std::string path(size, 'x');
    Platform::SCalendarTime const time{2014, 2, 28, 10, 3, 20};
    Debug::BuildDumpPath(path.data(), size, executable, time);
    return path.c_str();
}

} // namespace

TEST(DumpPath, IsTheProgramWithoutExtensionAndTheMomentWithoutPadding)
{
    EXPECT_EQ(BuildPath("C:\\app\\tool.exe"), "C:\\app\\tool_2014-2-28_10-3-20.dmp");
}

TEST(DumpPath, KeepsANameWithoutExtension)
{
    EXPECT_EQ(BuildPath("/usr/bin/tool"), "/usr/bin/tool_2014-2-28_10-3-20.dmp");
    EXPECT_EQ(BuildPath("abc"), "abc_2014-2-28_10-3-20.dmp");
    EXPECT_EQ(BuildPath(""), "_2014-2-28_10-3-20.dmp");
    EXPECT_EQ(BuildPath("a.b/tool"), "a.b/tool_2014-2-28_10-3-20.dmp");
    // The dot of a folder's name is not the program's.
    EXPECT_EQ(BuildPath("/opt/x.d/a"), "/opt/x.d/a_2014-2-28_10-3-20.dmp");
    EXPECT_EQ(BuildPath("/opt/.b/c"), "/opt/.b/c_2014-2-28_10-3-20.dmp");
    EXPECT_EQ(BuildPath("C:\\x.y\\z"), "C:\\x.y\\z_2014-2-28_10-3-20.dmp");
}

TEST(DumpPath, IsCutToItsBuffer)
{
    EXPECT_EQ(BuildPath("C:\\app\\tool.exe", 16), "C:\\app\\tool_201");
}

TEST(Minidump, ThatCannotBeWrittenIsReportedAndLeavesNoFile)
{
    EXPECT_FALSE(Platform::WriteMinidump("no-such-folder/x.dmp", 1, nullptr));
    EXPECT_FALSE(Platform::WriteMinidump("/dev/full", 1, nullptr));
}

namespace {

int g_runs = 0;

} // namespace

TEST(CrashStage, RunsAndReportsSuccess)
{
    g_runs = 0;
    int two = 2;
    EXPECT_TRUE(Platform::RunCrashStage([](void* context) { g_runs += *static_cast<int*>(context); }, &two, 1000));
    int three = 3;
    EXPECT_TRUE(Platform::RunCrashStage([](void* context) { g_runs += *static_cast<int*>(context); }, &three, 0));
    EXPECT_EQ(g_runs, 5);
}
