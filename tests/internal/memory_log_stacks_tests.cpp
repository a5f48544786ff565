// Which frames of a call stack the memory event log writes, and how, on stacks of this test's own.
#include "RecordingFile.h"
#include "StrictJSON.h"
#include "TestHeap.h"
#include "platform/Platform_Stack.h"

#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#define VLM_NOINLINE __attribute__((noinline))

namespace {

std::vector<void (*)()> g_stack; // innermost first
unsigned g_hash = 0;

} // namespace

// In place of the room's: the linker takes it.
namespace Velmor::Platform {

u32 CaptureStack(void** addresses, u32* hash)
{
    u32 count = 0;
    for (void (*const function)() : g_stack)
        addresses[count++] = reinterpret_cast<char*>(reinterpret_cast<void*>(function)) + 1; // within it
    if (hash != nullptr)
        *hash = g_hash;
    return count;
}

} // namespace Velmor::Platform

// Functions with the names that belong to the allocator, and two of a host's. Each does something of its own, so that
// no two are folded into one.
namespace {
int volatile g_sink = 0;
} // namespace

namespace Velmor {

template <class T>
struct TBlockAllocatorOfTest {
    VLM_NOINLINE static void Call() { g_sink = 1; }
};
struct CFileMemoryLoggerOfTest {
    VLM_NOINLINE static void Call();
};
void CFileMemoryLoggerOfTest::Call()
{
    g_sink = 2;
}
namespace Debug {
VLM_NOINLINE void CallOfTest()
{
    g_sink = 3;
}
} // namespace Debug
namespace Memory {
VLM_NOINLINE void CallOfTest()
{
    g_sink = 4;
}
} // namespace Memory
struct CHeapOfTest {
    VLM_NOINLINE static void Call();
};
void CHeapOfTest::Call()
{
    g_sink = 5;
}
struct CDeleteOfTest {
    VLM_NOINLINE static void Call();
};
void CDeleteOfTest::Call()
{
    g_sink = 6;
}
struct CMemoryOfTest { // "Velmor::CMemory" is none of the names
    VLM_NOINLINE static void Call();
};
void CMemoryOfTest::Call()
{
    g_sink = 7;
}

} // namespace Velmor

struct COverloads {
    VLM_NOINLINE static void* operator new(std::size_t size);
    VLM_NOINLINE static void operator delete(void* block);
};
void* COverloads::operator new(std::size_t size)
{
    g_sink = 8;
    return ::operator new(size);
}
void COverloads::operator delete(void* block)
{
    g_sink = 9;
    ::operator delete(block);
}

template <class A, class B>
struct THost {
    VLM_NOINLINE static void Call() { g_sink = 10; }
};
template struct THost<int, char&>;

VLM_NOINLINE void HostOfTest()
{
    g_sink = 11;
}

namespace {

using namespace Velmor;
using VlmTest::CRecordingFile;
using VlmTest::CStrictJSON;
using VlmTest::SJSONValue;

using CFileHandle = TResourcePtr<CRecordingFile>;

void (*const TheirNew)() = reinterpret_cast<void (*)()>(reinterpret_cast<void*>(&COverloads::operator new));

/// The allocator's frames, one for each name.
std::vector<void (*)()> GetAllocatorFrames()
{
    return {TheirNew,
            &CDeleteOfTest::Call,
            &CHeapOfTest::Call,
            &Memory::CallOfTest,
            &Debug::CallOfTest,
            &CFileMemoryLoggerOfTest::Call,
            &TBlockAllocatorOfTest<int>::Call};
}

class MemoryLogStacks : public testing::TestWithParam<u64> {
protected:
    void Record(std::vector<void (*)()> stack, unsigned hash)
    {
        g_stack = std::move(stack);
        g_hash = hash;
        m_logger->OnFree(nullptr);
    }

    /// The stack file, once everything is in it. Ends the test's part of recording.
    [[nodiscard]] std::string Finish()
    {
        m_logger.reset();
        return m_stacks->GetContent();
    }

    CFileHandle m_events = MakeResource<CRecordingFile>();
    CFileHandle m_stacks = MakeResource<CRecordingFile>();
    std::optional<CFileMemoryLogger> m_logger{std::in_place, m_events, m_stacks, GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Unbuffered, MemoryLogStacks, testing::Values(0));
INSTANTIATE_TEST_SUITE_P(Buffered, MemoryLogStacks, testing::Values(100));

TEST_P(MemoryLogStacks, OfAllocatorFramesAloneIsEmpty)
{
    Record(GetAllocatorFrames(), 4000000000u);
    EXPECT_EQ(Finish(), "{ \"Data\": [\n{ \"CSHash\": 4000000000, \"Stack\": [\n]}\n]}\n");
}

TEST_P(MemoryLogStacks, WithoutFramesIsEmpty)
{
    Record({}, 0);
    Record({}, 0);
    EXPECT_EQ(Finish(), "{ \"Data\": [\n{ \"CSHash\": 0, \"Stack\": [\n]}\n]}\n");
    EXPECT_EQ(CStrictJSON::Parse(m_events->GetContent())["Data"].items.size(), 2u);
}

TEST_P(MemoryLogStacks, EachNameOfTheAllocatorIsLeftOutWhereverItStands)
{
    unsigned hash = 1;
    for (void (*const frame)() : GetAllocatorFrames()) {
        Record({frame, &HostOfTest, frame, &CMemoryOfTest::Call, frame}, hash);
        ++hash;
    }
    SJSONValue const document = CStrictJSON::Parse(Finish());
    std::vector<SJSONValue> const& stacks = document["Data"].items;
    ASSERT_EQ(stacks.size(), 7u);
    for (SJSONValue const& stack : stacks) {
        std::vector<SJSONValue> const& frames = stack["Stack"].items;
        ASSERT_EQ(frames.size(), 2u) << stack["CSHash"].text;
        EXPECT_NE(frames[0]["Symbol"].text.find("HostOfTest"), std::string::npos) << frames[0]["Symbol"].text;
        EXPECT_NE(frames[1]["Symbol"].text.find("CMemoryOfTest"), std::string::npos) << frames[1]["Symbol"].text;
        EXPECT_NE(frames[0]["File"].text.find("memory_log_stacks_tests.cpp"), std::string::npos);
        EXPECT_GT(frames[0]["Line"].GetNumber(), 0u);
    }
}

TEST_P(MemoryLogStacks, TheLastFrameKeptHasNoComma)
{
    Record({&HostOfTest, &CMemoryOfTest::Call, TheirNew}, 7);
    std::string const content = Finish();
    std::size_t const first = content.find(" },\n");
    ASSERT_NE(first, std::string::npos) << content;
    EXPECT_EQ(content.find(" },\n", first + 1), std::string::npos) << content;
    EXPECT_EQ(content.substr(content.size() - 9), " }\n]}\n]}\n") << content;
}

TEST_P(MemoryLogStacks, NamesAreWrittenAsMarkup)
{
    Record({&THost<int, char&>::Call}, 7);
    std::string const content = Finish();
    EXPECT_NE(content.find("THost&lt;int"), std::string::npos) << content;
    EXPECT_NE(content.find("&amp;&gt;"), std::string::npos) << content;
    EXPECT_EQ(content.find("&amp;lt;"), std::string::npos) << content;
    EXPECT_EQ(content.find('<'), std::string::npos) << content;
}

TEST_P(MemoryLogStacks, ThirtyTwoFramesAreAllWritten)
{
    Record(std::vector<void (*)()>(32, &HostOfTest), 7);
    EXPECT_EQ(CStrictJSON::Parse(Finish())["Data"].items[0]["Stack"].items.size(), 32u);
}

TEST_P(MemoryLogStacks, OneHashIsOneStackAndTheFirstOneStands)
{
    Record({&HostOfTest}, 7);
    Record({&CMemoryOfTest::Call}, 8);
    Record({&CMemoryOfTest::Call}, 7);
    SJSONValue const document = CStrictJSON::Parse(Finish());
    std::vector<SJSONValue> const& stacks = document["Data"].items;
    ASSERT_EQ(stacks.size(), 2u);
    EXPECT_EQ(stacks[0]["CSHash"].text, "7");
    EXPECT_NE(stacks[0]["Stack"].items[0]["Symbol"].text.find("HostOfTest"), std::string::npos);
    std::vector<std::string> hashes;
    SJSONValue const events = CStrictJSON::Parse(m_events->GetContent());
    for (SJSONValue const& event : events["Data"].items)
        hashes.push_back(event["CSHash"].text);
    EXPECT_EQ(hashes, (std::vector<std::string>{"7", "8", "7"}));
}

TEST_P(MemoryLogStacks, OfAFullBufferAreAllThere)
{
    // As many as a buffer takes, each with all the frames that there is room for.
    for (unsigned hash = 1; hash <= 100; ++hash)
        Record(std::vector<void (*)()>(32, hash % 2 == 0 ? &HostOfTest : &CMemoryOfTest::Call), hash);
    SJSONValue const document = CStrictJSON::Parse(Finish());
    std::vector<SJSONValue> const& stacks = document["Data"].items;
    ASSERT_EQ(stacks.size(), 100u);
    for (std::size_t index = 0; index < stacks.size(); ++index) {
        EXPECT_EQ(stacks[index]["CSHash"].GetNumber(), index + 1);
        std::vector<SJSONValue> const& frames = stacks[index]["Stack"].items;
        ASSERT_EQ(frames.size(), 32u);
        char const* const name = index % 2 == 1 ? "HostOfTest" : "CMemoryOfTest";
        EXPECT_NE(frames[31]["Symbol"].text.find(name), std::string::npos) << frames[31]["Symbol"].text;
    }
}

TEST_P(MemoryLogStacks, MoreThanAreRememberedAreStillWrittenOnce)
{
    constexpr unsigned Count = 10000;
    for (int round = 0; round < 2; ++round) {
        for (unsigned hash = 1; hash <= Count; ++hash)
            Record({&HostOfTest}, hash * 2654435761u);
    }
    SJSONValue const document = CStrictJSON::Parse(Finish());
    EXPECT_EQ(document["Data"].items.size(), Count);
    EXPECT_EQ(CStrictJSON::Parse(m_events->GetContent())["Data"].items.size(), 2 * Count);
}

} // namespace
