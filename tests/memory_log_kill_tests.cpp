// A process that is killed while it records leaves two whole JSON documents behind.
#include "StrictJSON.h"
#include "support/DebuggedProcess.h"
#include "support/SystemTraits.h"
#include "support/ThreadHelpers.h"

#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>

namespace {

using namespace Velmor;
using VlmTest::CStrictJSON;
using VlmTest::SJSONValue;

constexpr char const* EventsPath = "memory_log_kill_events.json";
constexpr char const* StacksPath = "memory_log_kill_stacks.json";

/// Allocates and frees at a call site of its own for each depth.
[[gnu::noinline]] void AllocateAt(int depth)
{
    if (depth > 0)
        AllocateAt(depth - 1);
    void* const block = Memory::Malloc(static_cast<u64>(depth) * 10 + 1, EHeap::Pool);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    Memory::Free(block);
}

/// The argument: capacity. "once" as the second argument ends after one event.
VLMCORE_CHILD(RecordsUntilKilled)
{
    auto const& arguments = TestSupport::GetChildArguments();
    Memory::Initialize(0, 0);
    CFileMemoryLogger logger(EventsPath, StacksPath, std::stoull(arguments[0]));
    Memory::InitializeLog(&logger);
    if (arguments.size() > 1) {
        AllocateAt(0);
        Memory::ReleaseLog();
        return 0;
    }
    auto const allocateForEver = [] {
        for (;;)
            AllocateAt(12);
    };
    std::thread second(allocateForEver);
    allocateForEver();
    return 0;
}

[[nodiscard]] std::string ReadAll(char const* path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// True for a file that ends where a kill may cut it on this system.
[[nodiscard]] bool IsCut(std::string const& content)
{
    return TestSupport::SystemTraits.killMayCutWrites && content.size() % 4096 == 0;
}

/// Kills children at random moments of their work; `capacity` is the logger's.
void KillWhileRecording(char const* capacity)
{
    using Clock = std::chrono::steady_clock;
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    auto const start = Clock::now();
    ASSERT_EQ(TestSupport::RunChild("RecordsUntilKilled", {capacity, "once"}).exitCode, 0u);
    unsigned startup = static_cast<unsigned>(duration_cast<milliseconds>(Clock::now() - start).count());
    unsigned const rounds = std::clamp(4000 / (startup + 75), 3u, 100u) * TestSupport::GetStressFactor();

    std::mt19937 random(std::random_device{}());
    unsigned recorded = 0;
    unsigned round = 0;
    for (; round < rounds || (recorded <= rounds / 4 && round < 4 * rounds); ++round) {
        TestSupport::SChildOptions options;
        options.arguments = {capacity};
        options.killAfterMilliseconds = startup + 1 + static_cast<unsigned>(random() % 150);
        // Nothing of the child before: emptying its many megabytes would be most of what this one is killed at.
        std::remove(EventsPath);
        std::remove(StacksPath);
        auto const child = TestSupport::RunChild("RecordsUntilKilled", options);
        ASSERT_TRUE(child.timedOut) << "ended by itself with " << child.exitCode;
        std::string const events = ReadAll(EventsPath);
        std::string const stacks = ReadAll(StacksPath);
        // A child that a busy machine has not even let begin its files has nothing to show; that of the events is begun
        // last.
        if (events.empty())
            startup += startup / 4 + 10; // it takes longer than the first one did
        if (events.empty() || IsCut(events) || IsCut(stacks))
            continue;
        SJSONValue eventDocument;
        SJSONValue stackDocument;
        ASSERT_NO_THROW(eventDocument = CStrictJSON::Parse(events)) << "round " << round;
        ASSERT_NO_THROW(stackDocument = CStrictJSON::Parse(stacks)) << "round " << round;
        std::string lastStack;
        for (SJSONValue const& stack : stackDocument["Data"].items)
            lastStack += " " + stack["CSHash"].text;
        if (stackDocument["Data"].items.empty())
            startup += 25; // killed between the beginning of the files and the first stack in them
        else
            ++recorded;
        if (!eventDocument["Data"].items.empty()) {
            // The stacks of the events that made it made it too.
            std::string const hash = eventDocument["Data"].items.back()["CSHash"].text;
            EXPECT_NE(lastStack.find(" " + hash), std::string::npos);
        }
    }
    EXPECT_GT(recorded, rounds / 4) << "too few children came as far as recording";
    std::printf("%u of %u children were killed while recording\n", recorded, round);
    std::remove(EventsPath);
    std::remove(StacksPath);
}

TEST(MemoryLogKill, BufferedDocumentsAreWhole)
{
    KillWhileRecording("4096");
}

TEST(MemoryLogKill, UnbufferedDocumentsAreWhole)
{
    KillWhileRecording("0");
}

} // namespace
