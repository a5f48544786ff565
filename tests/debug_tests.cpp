#include "support/DebuggedProcess.h"

#include <gtest/gtest.h>

#include <vlmcore/debug.h>

#include <cstdio>
#include <string>

using namespace Velmor;
using TestSupport::RunChild;
using TestSupport::RunDebugged;

VLMCORE_CHILD(SaysWhetherDebugged)
{
    std::printf("%d\n", Debug::IsDebuggerPresent() ? 1 : 0);
    return 7;
}

TEST(IsDebuggerPresent, TrueUnderADebuggingParentOnly)
{
    auto const debugged = RunDebugged("SaysWhetherDebugged");
    EXPECT_EQ(debugged.standardOutput, "1\n");
    EXPECT_EQ(debugged.exitCode, 7u);

    auto const alone = RunChild("SaysWhetherDebugged");
    EXPECT_EQ(alone.standardOutput, "0\n");
    EXPECT_EQ(alone.exitCode, 7u);
}

VLMCORE_CHILD(PrintsTwice)
{
    Debug::Print("first %d %s\n", 5, "text");
    Debug::Print("second");
    return 0;
}

TEST(Print, ReachesTheDebuggerInOrder)
{
    auto const child = RunDebugged("PrintsTwice");
    EXPECT_EQ(child.debuggerOutput, "first 5 text\nsecond");
    EXPECT_EQ(child.standardOutput, "");
    EXPECT_EQ(child.exitCode, 0u);
}

TEST(Print, DoesNothingWithoutADebugger)
{
    auto const child = RunChild("PrintsTwice");
    EXPECT_TRUE(child.started);
    EXPECT_EQ(child.debuggerOutput, "");
    EXPECT_EQ(child.standardOutput, "");
    EXPECT_EQ(child.standardError, "");
}

VLMCORE_CHILD(PrintsTooMuch)
{
    std::string const text(5000, 'x');
    Debug::Print("%s", text.c_str());
    Debug::Print("%s", text.substr(0, 4095).c_str());
    return 0;
}

TEST(Print, CutsTheTextToItsBuffer)
{
    auto const child = RunDebugged("PrintsTooMuch");
    EXPECT_EQ(child.debuggerOutput, std::string(4095 + 4095, 'x'));
}
