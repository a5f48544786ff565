#include <vlmcore/system.h>

#include "TestHeap.h"
#include "support/Messages.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

using namespace Velmor;
using TestSupport::MessageOf;

static_assert(sizeof(System::SCPUInfo) == 56);
static_assert(offsetof(System::SCPUInfo, cacheLineSize) == 24 && offsetof(System::SCPUInfo, processorCount) == 48 &&
              offsetof(System::SCPUInfo, hasVector8) == 51);

namespace {

std::string FailureOf(CString const& name)
{
    return MessageOf([&] { static_cast<void>(System::LoadLibrary(name)); });
}

bool StartsWith(std::string const& text, std::string const& start)
{
    return text.compare(0, start.size(), start) == 0 && text.size() > start.size();
}

} // namespace

TEST(System, CPUInfoDescribesThisMachine)
{
    System::SCPUInfo info;
    std::memset(&info, 0xEE, sizeof(info));
    System::GetCPUInfo(info);
    EXPECT_EQ(info.processorCount, static_cast<u8>(std::thread::hardware_concurrency()));
    EXPECT_EQ(info.hasVector2, 1); // every 64-bit processor has them
    EXPECT_EQ(info.hasVector4, 1);
    EXPECT_LE(info.hasVector8, 1);
    for (u64 lineSize : info.cacheLineSize)
        EXPECT_LE(lineSize, 4096u);
}

TEST(System, TimeGoesForwardInMilliseconds)
{
    double const before = System::GetTimeMs();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    double const after = System::GetTimeMs();
    EXPECT_GE(after - before, 29.0);
    EXPECT_LT(after - before, 10000.0);
    double last = after;
    bool hasFraction = false;
    for (int i = 0; i < 1000; ++i) {
        double const now = System::GetTimeMs();
        EXPECT_GE(now, last);
        hasFraction = hasFraction || now != static_cast<double>(static_cast<i64>(now));
        last = now;
    }
    EXPECT_TRUE(hasFraction);
}

TEST(System, MemoryFigures)
{
    u64 const physical = System::GetMaxPhysicalMemory();
    EXPECT_GE(physical, u64{64} << 20);
    EXPECT_LT(physical, u64{1} << 52);
    EXPECT_GE(System::GetMaxVirtualMemory(), physical / 2);
    EXPECT_LT(System::GetMaxVirtualMemory(), u64{1} << 53);
}

TEST(Module, LoadsWithTheSuffixAppended)
{
    for (CString const& name : {CString("plugins/render"), CString("plugins\\render"), CString(u"plugins/render")}) {
        void* const module = System::LoadLibrary(name);
        ASSERT_NE(module, nullptr);
        void* const function = System::GetLibraryFunctionPtr(module, "MultiplyBySeven");
        ASSERT_NE(function, nullptr);
        EXPECT_EQ(reinterpret_cast<int (*)(int)>(function)(6), 42);
        EXPECT_EQ(System::GetLibraryFunctionPtr(module, u"MultiplyBySeven"), function);
        System::FreeLibrary(module);
    }
}

TEST(Module, ADotAnywhereSuppressesTheSuffix)
{
    void* const module = System::LoadLibrary("lib.old/render");
    ASSERT_NE(module, nullptr);
    EXPECT_NE(System::GetLibraryFunctionPtr(module, "MultiplyBySeven"), nullptr);
    System::FreeLibrary(module);
    EXPECT_TRUE(StartsWith(FailureOf("plug.ins/render"), "plug.ins\\render failed to load: "));
}

TEST(Module, GetLibraryKnowsLoadedModulesOnly)
{
    EXPECT_EQ(System::GetLibrary("plugins/render"), nullptr);
    void* const module = System::LoadLibrary("plugins/render");
    EXPECT_EQ(System::GetLibrary("plugins/render"), module);
    EXPECT_EQ(System::GetLibrary(U"plugins\\render"), module);
    System::FreeLibrary(module);
    EXPECT_EQ(System::GetLibrary("plugins/render"), nullptr); // it took no hold
    EXPECT_EQ(System::GetLibrary("no_such_module"), nullptr);
    EXPECT_EQ(System::GetLibrary(""), nullptr);
}

TEST(Module, EachLoadIsAHold)
{
    void* const first = System::LoadLibrary("plugins/render");
    void* const second = System::LoadLibrary("plugins/render");
    EXPECT_EQ(first, second);
    System::FreeLibrary(first);
    EXPECT_EQ(System::GetLibrary("plugins/render"), second);
    System::FreeLibrary(second);
    EXPECT_EQ(System::GetLibrary("plugins/render"), nullptr);
    System::FreeLibrary(nullptr);
}

TEST(Module, AFailureNamesTheProcessedNameAndTheReason)
{
    std::string const message = FailureOf("no/such/module");
    EXPECT_TRUE(StartsWith(message, "no\\such\\module.dll failed to load: ") ||
                StartsWith(message, "no\\such\\module.so failed to load: "))
        << message;
    EXPECT_TRUE(StartsWith(FailureOf("missing.file"), "missing.file failed to load: "));
    EXPECT_TRUE(StartsWith(FailureOf(u"gr\u00FC\u00DFe.file"), "gr\xC3\xBC\xC3\x9F"
                                                               "e.file failed to load: "));
    EXPECT_TRUE(StartsWith(FailureOf(""), "."));
}

TEST(Module, AnEndlessNameIsAFailureLikeAnyOther)
{
    std::string const name(100000, 'n');
    EXPECT_TRUE(StartsWith(FailureOf(name.c_str()), std::string(2000, 'n') + " failed to load: "));
}

TEST(Module, AMissingFunctionThrows)
{
    void* const module = System::LoadLibrary("plugins/render");
    EXPECT_TRUE(StartsWith(MessageOf([&] { static_cast<void>(System::GetLibraryFunctionPtr(module, "Missing")); }),
                           "Missing failed to load: "));
    EXPECT_TRUE(StartsWith(MessageOf([&] { static_cast<void>(System::GetLibraryFunctionPtr(module, CString())); }),
                           " failed to load: "));
    System::FreeLibrary(module);
    EXPECT_TRUE(StartsWith(MessageOf([&] { static_cast<void>(System::GetLibraryFunctionPtr(nullptr, "malloc")); }),
                           "malloc failed to load: "));
}

TEST(Demangle, DropsWhatLeadsUpToTheFirstSpace)
{
    char text[32];
    EXPECT_EQ(RTTI::Demangle("class Velmor::CString", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "Velmor::CString");
    EXPECT_EQ(RTTI::Demangle("struct A B", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "A B");
    EXPECT_EQ(RTTI::Demangle("Plain", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "Plain");
    EXPECT_EQ(RTTI::Demangle("class ", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(RTTI::Demangle("", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "");
}

TEST(Demangle, CutsToTheSizeOfTheOutput)
{
    char text[8];
    std::memset(text, '#', sizeof(text));
    EXPECT_EQ(RTTI::Demangle("class Abcdef", text, 4), 0);
    EXPECT_STREQ(text, "Abc");
    EXPECT_EQ(text[4], '#');
    EXPECT_EQ(RTTI::Demangle("class Abcdef", text, 7), 0);
    EXPECT_STREQ(text, "Abcdef");
    EXPECT_EQ(text[7], '#');
    EXPECT_EQ(RTTI::Demangle("class Abcdef", text, 1), 0);
    EXPECT_STREQ(text, "");
}

TEST(Demangle, NothingToWriteOrRead)
{
    char text[4] = "#";
    EXPECT_EQ(RTTI::Demangle("name", text, 0), 0);
    EXPECT_EQ(text[0], '#');
    EXPECT_EQ(RTTI::Demangle("name", nullptr, 8), 0);
    EXPECT_EQ(RTTI::Demangle(nullptr, text, sizeof(text)), 0);
    EXPECT_STREQ(text, "");
}
