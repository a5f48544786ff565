#include "TestHeap.h"
#include "support/DebuggedProcess.h"

#include <gtest/gtest.h>

#include <vlmcore/exceptions.h>
#include <vlmcore/memory.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

using namespace Velmor;
using TestSupport::RunChild;

namespace {

std::string TextOf(CException const& exception)
{
    EXPECT_EQ(exception.GetText().GetEncoding(), EStringEncoding::UTF8);
    return static_cast<char const*>(exception.GetText().GetData());
}

/// As another part of the library derives from it.
class CDerivedException : public CException {
public:
    CDerivedException() : CException(WeakTypeKind, CString("derived")) {}
};

} // namespace

// The layout: virtual table, text (a CMutableString), kind, and for files the error.
static_assert(sizeof(CException) == sizeof(void*) + sizeof(CMutableString) + 8);
static_assert(sizeof(CFileException) == sizeof(CException) + 8);
static_assert(EFileError::Unknown == 0 && EFileError::NotFound == 1 && EFileError::Corrupt == 2 &&
              EFileError::Invalid == 3 && EFileError::Denied == 4);

TEST(Exception, FormatsItsTextAndIsPlain)
{
    CException const exception("value %d, %s", 5, "text");
    EXPECT_EQ(TextOf(exception), "value 5, text");
    EXPECT_EQ(exception.GetKind(), 0);
}

TEST(Exception, IsThrownByValueAndCaughtAsTheBase)
{
    try {
        throw CFileException("Bytestream is not writeable.", EFileError::Denied);
    }
    catch (CException const& exception) {
        EXPECT_EQ(TextOf(exception), "Bytestream is not writeable.");
        EXPECT_EQ(exception.GetKind(), 1);
        ASSERT_NE(dynamic_cast<CFileException const*>(&exception), nullptr);
        return;
    }
    FAIL();
}

TEST(Exception, DerivedOnesSetTheirKind)
{
    CDerivedException const exception;
    EXPECT_EQ(exception.GetKind(), 2);
    EXPECT_EQ(TextOf(exception), "derived");
}

TEST(Exception, CopiesAndAssignments)
{
    CException const first("first %d", 1);
    CException second("second %d", 2);
    CException const copy = first;
    EXPECT_EQ(TextOf(copy), "first 1");
    second = first;
    EXPECT_EQ(TextOf(second), "first 1");
    EXPECT_NE(second.GetText().GetData(), first.GetText().GetData());
    EXPECT_EQ(TextOf(first), "first 1");
}

TEST(FileException, TakesItsTextAsItStands)
{
    CFileException const exception("100% of %s %d", EFileError::Corrupt);
    EXPECT_EQ(TextOf(exception), "100% of %s %d");
    EXPECT_EQ(exception.GetKind(), 1);
    EXPECT_EQ(exception.GetFileError(), EFileError::Corrupt);
}

TEST(FileException, CloneCopiesTextKindAndError)
{
    CFileException const original("Not there.", EFileError::NotFound);
    CException* const clone = static_cast<CException const&>(original).Clone();
    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(Memory::GetHeap(dynamic_cast<void*>(clone)), EHeap::Pool);
    EXPECT_EQ(Memory::GetSize(dynamic_cast<void*>(clone)), sizeof(CFileException));
    EXPECT_EQ(TextOf(*clone), "Not there.");
    EXPECT_EQ(clone->GetKind(), 1);
    auto const* const file = dynamic_cast<CFileException const*>(clone);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->GetFileError(), EFileError::NotFound);
    Memory::Delete(clone);
}

TEST(Exception, CloneIsAPlainCopyFromThePool)
{
    CException const original("text %u", 7u);
    CException* const clone = original.Clone();
    EXPECT_EQ(Memory::GetHeap(clone), EHeap::Pool);
    EXPECT_EQ(Memory::GetSize(clone), sizeof(CException));
    EXPECT_EQ(TextOf(*clone), "text 7");
    EXPECT_EQ(clone->GetKind(), 0);
    EXPECT_EQ(dynamic_cast<CFileException*>(clone), nullptr);
    Memory::Delete(clone);
}

TEST(Exception, LongestTextThatFits)
{
    std::string const text(4095, 'x');
    CException const exception("%s", text.c_str());
    EXPECT_EQ(TextOf(exception), text);
}

VLMCORE_CHILD(ThrowsTooLongAText)
{
    Memory::Initialize(0, 0);
    std::string const text(4096, 'x');
    try {
        CException const exception("%s", text.c_str());
        std::printf("built %u\n", static_cast<unsigned>(exception.GetText().GetLength()));
    }
    catch (...) {
        std::printf("thrown\n");
    }
    std::fflush(stdout);
    return 0;
}

TEST(Exception, ATextThatDoesNotFitEndsTheProcess)
{
    auto const child = RunChild("ThrowsTooLongAText");
    EXPECT_NE(child.exitCode, 0u) << child.standardOutput;
    EXPECT_EQ(child.standardOutput, "");
}

namespace {

int g_allocationsLeft = -1;

void* AllocateSome(u64 size)
{
    if (g_allocationsLeft == 0)
        return nullptr;
    if (g_allocationsLeft > 0)
        --g_allocationsLeft;
    return std::malloc(size);
}

} // namespace

VLMCORE_CHILD(ClonesWithoutMemory)
{
    // Without pools every allocation is a call of the hook: the object is the first, its text the second.
    Memory::Initialize(&AllocateSome, nullptr, nullptr, EHeapFlag::Passthrough, 0);
    int failures = 0;
    {
        CFileException const original("text", EFileError::Denied);
        Memory::SStatistics before{}, after{};
        static_cast<void>(Memory::GetStatistics(before));
        for (int allowed = 0; allowed < 2; ++allowed) {
            g_allocationsLeft = allowed;
            try {
                Memory::Delete(original.Clone());
            }
            catch (std::bad_alloc const& error) {
                if (std::string(error.what()) == "bad allocation")
                    ++failures;
            }
            g_allocationsLeft = -1;
        }
        Memory::Delete(original.Clone());
        static_cast<void>(Memory::GetStatistics(after));
        std::printf("%d %s\n", failures, before.liveCount == after.liveCount ? "balanced" : "leaked");
    }
    Memory::Deinitialize();
    return 0;
}

TEST(Exception, CloneWithoutMemoryThrowsAndLeaksNothing)
{
    auto const child = RunChild("ClonesWithoutMemory");
    EXPECT_EQ(child.standardOutput, "2 balanced\n") << child.standardError;
    EXPECT_EQ(child.exitCode, 0u);
}
