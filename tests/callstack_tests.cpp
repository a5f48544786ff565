// Labels: threads
#include "TestHeap.h"

#include <gtest/gtest.h>

#include <vlmcore/debug.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Velmor;

#define VLM_NOINLINE __attribute__((noinline))

// The layout that hosts allocate for.
static_assert(offsetof(Debug::SCallstackLine, address) == 0);
static_assert(offsetof(Debug::SCallstackLine, line) == 8);
static_assert(offsetof(Debug::SCallstackLine, symbol) == 12);
static_assert(offsetof(Debug::SCallstackLine, module) == 12 + 1024);
static_assert(offsetof(Debug::SCallstackLine, file) == 12 + 1024 + 64);
static_assert(sizeof(Debug::SCallstackLine[32]) == 43520);

namespace {

struct SCapture {
    void* addresses[Debug::MaxFrames] = {};
    unsigned hash = 0;
    unsigned count = 0;

    bool operator==(SCapture const& other) const
    {
        return count == other.count && hash == other.hash &&
               std::memcmp(addresses, other.addresses, sizeof addresses) == 0;
    }
};

thread_local int volatile g_sink = 0;
int volatile g_two = 2; // keeps loops from being unrolled into several call sites

} // namespace

// With external names, so that symbols are found for them on every system; g_sink keeps calls from becoming jumps.
VLM_NOINLINE void CaptureInnermost(SCapture& capture)
{
    capture.count = Debug::Backtrace(capture.addresses, &capture.hash);
    g_sink = g_sink + 1;
}

VLM_NOINLINE void CaptureMiddle(SCapture& capture)
{
    CaptureInnermost(capture);
    g_sink = g_sink + 1;
}

VLM_NOINLINE void CaptureOuter(SCapture& capture)
{
    CaptureMiddle(capture);
    g_sink = g_sink + 1;
}

VLM_NOINLINE void CaptureAtDepth(SCapture& capture, int depth)
{
    if (depth == 0)
        CaptureInnermost(capture);
    else
        CaptureAtDepth(capture, depth - 1);
    g_sink = g_sink + 1;
}

VLM_NOINLINE unsigned UnwindInnermost(Debug::SCallstackLine* frames, unsigned* hash)
{
    unsigned const count = Debug::UnwindCallStack(frames, hash);
    g_sink = g_sink + 1;
    return count;
}

namespace {

std::string FileOf(Debug::SCallstackLine const& frame)
{
    std::string const path = frame.file;
    std::size_t const mark = path.find_last_of("/\\");
    return mark == std::string::npos ? path : path.substr(mark + 1);
}

bool Contains(char const* text, char const* part)
{
    return std::strstr(text, part) != nullptr;
}

} // namespace

TEST(Backtrace, ListsTheCallersInnermostFirst)
{
    SCapture capture;
    CaptureOuter(capture);
    ASSERT_GE(capture.count, 5u);
    Debug::SCallstackLine frames[5];
    Debug::ResolveSymbols(capture.addresses, frames, 5);
    // The first address lies in the capturing function of the library itself.
    EXPECT_TRUE(Contains(frames[0].symbol, "Backtrace")) << frames[0].symbol;
    EXPECT_TRUE(Contains(frames[1].symbol, "CaptureInnermost")) << frames[1].symbol;
    EXPECT_TRUE(Contains(frames[2].symbol, "CaptureMiddle")) << frames[2].symbol;
    EXPECT_TRUE(Contains(frames[3].symbol, "CaptureOuter")) << frames[3].symbol;
    EXPECT_TRUE(Contains(frames[4].symbol, "TestBody")) << frames[4].symbol;
}

TEST(Backtrace, CountsFramesThatAreNotZero)
{
    SCapture capture;
    CaptureOuter(capture);
    for (unsigned i = 0; i < capture.count; ++i)
        EXPECT_NE(capture.addresses[i], nullptr) << i;
}

TEST(Backtrace, GivesThirtyTwoFramesOfADeeperStack)
{
    SCapture capture;
    CaptureAtDepth(capture, 100);
    EXPECT_EQ(capture.count, 32u);
    // Everything beyond the library's own frame and the innermost function is the recursion.
    for (unsigned i = 4; i < 32; ++i)
        EXPECT_EQ(capture.addresses[i], capture.addresses[3]);
}

TEST(Backtrace, EveryDepthCountsOneFrameMore)
{
    SCapture shallow, deep;
    CaptureAtDepth(shallow, 0);
    CaptureAtDepth(deep, 3);
    EXPECT_EQ(deep.count, shallow.count + 3);
}

TEST(Backtrace, HashIdentifiesTheSite)
{
    SCapture captures[2];
    for (int i = 0; i < g_two; ++i)
        CaptureOuter(captures[i]);
    EXPECT_EQ(captures[0], captures[1]);
    SCapture other;
    CaptureOuter(other); // another line, another address in this function
    EXPECT_NE(other.hash, captures[0].hash);
}

TEST(Backtrace, TakesANullHash)
{
    void* addresses[Debug::MaxFrames];
    EXPECT_GE(Debug::Backtrace(addresses, nullptr), 2);
}

namespace {

SCapture g_sorted[2];
int g_sortedCount = 0;
bool g_captureNext = false;

int CompareAndCapture(void const* a, void const* b)
{
    if (g_captureNext && g_sortedCount < 2)
        CaptureInnermost(g_sorted[g_sortedCount++]);
    g_captureNext = false; // once per sorting
    return *static_cast<int const*>(a) - *static_cast<int const*>(b);
}

} // namespace

VLM_NOINLINE void SortAndCapture()
{
    int values[2] = {2, 1};
    g_sortedCount = 0;
    for (int i = 0; i < g_two; ++i) {
        g_captureNext = true;
        std::qsort(values, 2, sizeof values[0], &CompareAndCapture);
    }
    g_sink = g_sink + 1;
}

TEST(Backtrace, GoesThroughFunctionsOfTheRuntimeThatCallBack)
{
    SortAndCapture();
    ASSERT_EQ(g_sortedCount, 2);
    for (SCapture& capture : g_sorted) {
        bool found = false;
        for (unsigned i = 0; i < capture.count && !found; ++i) {
            Debug::SCallstackLine frame;
            Debug::ResolveSymbol(capture.addresses[i], frame);
            found = Contains(frame.symbol, "SortAndCapture");
        }
        EXPECT_TRUE(found) << "the caller of the sorting routine is missing";
    }
    EXPECT_EQ(g_sorted[0], g_sorted[1]); // met for the first time and known already
}

TEST(Backtrace, WorksInThreadsAtOnce)
{
    std::vector<SCapture> captures(4 * 100);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t)
        threads.emplace_back([&captures, t] {
            for (std::size_t i = 0; i < 100; ++i)
                CaptureOuter(captures[t * 100 + i]);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (SCapture const& capture : captures) {
        EXPECT_GE(capture.count, 4u);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(capture.addresses[i], captures[0].addresses[i]) << i;
    }
}

TEST(UnwindCallStack, ResolvesTheCallersWithFileAndLine)
{
    Debug::SCallstackLine frames[Debug::MaxFrames];
    unsigned hash = 0;
    unsigned const count = UnwindInnermost(frames, &hash);
    unsigned const line = __LINE__;
    ASSERT_GE(count, 3u);
    EXPECT_NE(hash, 0u);
    EXPECT_TRUE(Contains(frames[0].symbol, "UnwindCallStack")) << frames[0].symbol;
    EXPECT_TRUE(Contains(frames[1].symbol, "UnwindInnermost")) << frames[1].symbol;
    EXPECT_TRUE(Contains(frames[2].symbol, "TestBody")) << frames[2].symbol;
    EXPECT_EQ(FileOf(frames[2]), "callstack_tests.cpp");
    EXPECT_GE(frames[2].line, line - 2);
    EXPECT_LE(frames[2].line, line + 1);
    EXPECT_TRUE(Contains(frames[2].module, "callstack_tests")) << frames[2].module;
    EXPECT_TRUE(Contains(frames[0].module, "VlmCore") || Contains(frames[0].module, "vlmcore")) << frames[0].module;
    for (unsigned i = 0; i < count; ++i)
        EXPECT_NE(frames[i].address, 0u) << i;
}

TEST(UnwindCallStack, CapturesWithoutAFrameArray)
{
    unsigned hashes[2] = {};
    unsigned counts[2] = {};
    for (int i = 0; i < g_two; ++i)
        counts[i] = UnwindInnermost(nullptr, &hashes[i]);
    EXPECT_GE(counts[0], 3u);
    EXPECT_EQ(counts[0], counts[1]);
    EXPECT_EQ(hashes[0], hashes[1]);
    EXPECT_NE(hashes[0], 0u);
}

TEST(ResolveSymbol, KnowsNothingOfAnAddressWithoutCode)
{
    Debug::SCallstackLine frame;
    std::memset(&frame, 'x', sizeof frame);
    Debug::ResolveSymbol(reinterpret_cast<void*>(16), frame);
    EXPECT_EQ(frame.address, 16u);
    EXPECT_EQ(frame.line, 0u);
    EXPECT_STREQ(frame.file, "unknown_file");
    EXPECT_STREQ(frame.symbol, "");
    EXPECT_STREQ(frame.module, "");
}

namespace {

struct SSite {
    void* address;
    unsigned line;
};

} // namespace

/// One function of many, each with an address of its own.
template <int Number>
VLM_NOINLINE SSite CaptureInSite()
{
    SCapture capture;
    CaptureInnermost(capture);
    g_sink = Number;
    return {capture.addresses[2], __LINE__ - 2};
}

namespace {

template <int... Numbers>
std::vector<SSite> CaptureInSites(std::integer_sequence<int, Numbers...>)
{
    return {CaptureInSite<Numbers>()...};
}

} // namespace

TEST(ResolveSymbols, FindsEachOfManyFunctions)
{
    std::vector<SSite> const sites = CaptureInSites(std::make_integer_sequence<int, 300>());
    for (int round = 0; round < 2; ++round) { // met for the first time and known already
        for (std::size_t site = 0; site < sites.size(); ++site) {
            Debug::SCallstackLine frame;
            std::memset(&frame, 'x', sizeof frame);
            Debug::ResolveSymbol(sites[site].address, frame);
            EXPECT_TRUE(Contains(frame.symbol, ("CaptureInSite<" + std::to_string(site) + ">").c_str()))
                << frame.symbol;
            EXPECT_EQ(FileOf(frame), "callstack_tests.cpp");
            EXPECT_GE(frame.line, sites[site].line);
            EXPECT_LE(frame.line, sites[site].line + 1); // the address is that behind the call
            EXPECT_TRUE(Contains(frame.module, "callstack_tests")) << frame.module;
            EXPECT_EQ(frame.address, reinterpret_cast<u64>(sites[site].address));
        }
    }
}

TEST(ResolveSymbols, DoesNothingWithoutFramesOrWithoutAddresses)
{
    void* address = reinterpret_cast<void*>(16);
    Debug::ResolveSymbols(&address, nullptr, 1);
    Debug::SCallstackLine frame;
    frame.address = 77;
    Debug::ResolveSymbols(&address, &frame, 0);
    EXPECT_EQ(frame.address, 77u);
}

TEST(ResolveSymbols, WorksInThreadsAtOnce)
{
    SCapture capture;
    CaptureOuter(capture);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&capture] {
            for (int i = 0; i < 20; ++i) {
                Debug::SCallstackLine frames[Debug::MaxFrames];
                Debug::LoadSymbols();
                Debug::ResolveSymbols(capture.addresses, frames, capture.count);
                EXPECT_TRUE(Contains(frames[3].symbol, "CaptureOuter")) << frames[3].symbol;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}
