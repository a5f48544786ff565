// A host that includes <windows.h> first, with the names for wide characters.
#define UNICODE
#include <windows.h>

#include <vlmcore/vlmcore.h>

#include "TestHeap.h"

#include <gtest/gtest.h>

using namespace Velmor;

#if !defined(LoadLibrary)
#  error "the macros that this file is about are missing"
#endif

TEST(WindowsFirst, CallsThatItsMacrosRenameArrive)
{
    EXPECT_THROW(static_cast<void>(System::LoadLibrary("no/such/module")), CException);
    EXPECT_EQ(System::GetLibrary("no/such/module"), nullptr);
}

TEST(WindowsFirst, TemplatesSurviveMinAndMax)
{
    TVector<int> vector;
    for (int i = 0; i < 100; ++i)
        vector.Append(i);
    EXPECT_EQ(vector[99], 99);
    EXPECT_EQ(Math::Random(2.0f, 2.0f), 2.0f);
    CMutableString text;
    Format(text, "%1 %2", 1, "two");
    EXPECT_TRUE(text == CString("1 two"));
}
