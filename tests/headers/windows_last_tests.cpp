// A host that includes <windows.h> last, with the names for narrow characters. (The heap is that of the other file.)
#include <vlmcore/vlmcore.h>

#include <gtest/gtest.h>

#include <windows.h>

using namespace Velmor;

#if !defined(LoadLibrary)
#  error "the macros that this file is about are missing"
#endif

TEST(WindowsLast, CallsThatItsMacrosRenameArrive)
{
    EXPECT_THROW(static_cast<void>(System::LoadLibrary("no/such/module")), CException);
    EXPECT_EQ(System::GetLibrary("no/such/module"), nullptr);
}

TEST(WindowsLast, TheFunctionHasItsOwnName)
{
#undef LoadLibrary
    EXPECT_THROW(static_cast<void>(System::LoadLibrary("no/such/module")), CException);
}
