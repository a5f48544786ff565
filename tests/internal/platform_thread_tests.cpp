// Labels: threads
// The contract of the thread seam, which both rooms keep.
#include "TestHeap.h"
#include "platform/Platform_Thread.h"
#include "support/SystemTraits.h"
#include "support/ThreadHelpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <typeinfo>

using namespace Velmor;

namespace {

using Clock = std::chrono::steady_clock;

f64 MillisecondsSince(Clock::time_point from)
{
    return std::chrono::duration<f64, std::milli>(Clock::now() - from).count();
}

struct SBody {
    std::atomic<u32> threadId{0};
    std::atomic<i32> priority{99};

    static void Run(void* argument)
    {
        SBody& self = *static_cast<SBody*>(argument);
        self.priority = Platform::GetThreadPriority();
        self.threadId = Platform::GetThreadId();
    }
};

TEST(PlatformThread, RunsTheBodyOnAThreadOfItsOwn)
{
    SBody body;
    void* handle = nullptr;
    ASSERT_EQ(Platform::StartThread(&SBody::Run, &body, 0, 0, handle), 0u);
    ASSERT_NE(handle, nullptr);
    Platform::JoinThread(handle);
    EXPECT_NE(body.threadId, 0u);
    EXPECT_NE(body.threadId, Platform::GetThreadId());
    EXPECT_EQ(body.priority, 0);
}

TEST(PlatformThread, ALowerPriorityIsForTheAsking)
{
    for (i32 const priority : {-1, -2}) {
        SBody body;
        void* handle = nullptr;
        ASSERT_EQ(Platform::StartThread(&SBody::Run, &body, 0, priority, handle), 0u);
        Platform::JoinThread(handle);
        EXPECT_EQ(body.priority, std::max(priority, TestSupport::GetLowestThreadPriority()));
    }
    EXPECT_EQ(Platform::GetThreadPriority(), 0) << "the starter keeps its own";
}

TEST(PlatformThread, ThreadObjectsPassTheirPriorityOn)
{
    i32 expected = 0;
    i32 seen = 99;
    // A thread may begin before its starter has set the priority.
    auto const look = [&] {
        TestSupport::Eventually([&] { return (seen = Platform::GetThreadPriority()) == expected; });
    };
    TestSupport::CFunctionThread thread(look);
    thread.Run();
    thread.Join();
    EXPECT_EQ(seen, 0) << "the normal priority is the first";
    for (i32 const priority : {-1, -2, 0}) {
        expected = std::max(priority, TestSupport::GetLowestThreadPriority());
        thread.SetPriority(priority);
        thread.Run();
        thread.Join();
        EXPECT_EQ(seen, expected);
    }
    expected = 0;
    thread.SetPriority(-256); // stands for 0
    thread.Run();
    thread.Join();
    EXPECT_EQ(seen, 0);
}

TEST(PlatformThread, AnyStackSizeStarts)
{
    for (u32 const size : {1u, 4096u, 65537u, 8u << 20}) {
        SBody body;
        void* handle = nullptr;
        ASSERT_EQ(Platform::StartThread(&SBody::Run, &body, size, 0, handle), 0u) << size;
        Platform::JoinThread(handle);
        EXPECT_NE(body.threadId, 0u);
    }
}

TEST(PlatformThread, SleepsAtLeastTheTime)
{
    for (auto const kind : {Platform::ESleep::Alertable, Platform::ESleep::Deaf}) {
        auto const from = Clock::now();
        Platform::SleepThread(20, kind);
        EXPECT_GE(MillisecondsSince(from), 19.0); // the clocks differ a little
    }
    Platform::SleepThread(0, Platform::ESleep::Deaf);
    Platform::YieldThread();
    Platform::RelaxProcessor();
}

TEST(PlatformThread, SleepOnEndsWithTheTime)
{
    std::atomic<u32> word{7};
    auto const from = Clock::now();
    do {
        Platform::SleepOn(word, 7, 20);
    } while (MillisecondsSince(from) < 10); // it may end early
    EXPECT_LT(MillisecondsSince(from), 5'000);
}

TEST(PlatformThread, SleepOnDoesNotSleepOnAnotherValue)
{
    std::atomic<u32> word{7};
    auto const from = Clock::now();
    Platform::SleepOn(word, 8, 60'000);
    EXPECT_LT(MillisecondsSince(from), 30'000);
}

TEST(PlatformThread, WakeSleeperEndsASleep)
{
    for (int round = 0; round < 50; ++round) {
        std::atomic<u32> word{0};
        auto const from = Clock::now();
        TestSupport::RunConcurrently(2, [&](unsigned index) {
            if (index == 0) {
                while (word == 0)
                    Platform::SleepOn(word, 0, 60'000);
                return;
            }
            for (int yields = 0; yields < round * 10; ++yields)
                Platform::YieldThread();
            word = 1;
            Platform::WakeSleeper(word);
        });
        ASSERT_LT(MillisecondsSince(from), 30'000);
    }
    std::atomic<u32> nobody{0};
    Platform::WakeSleeper(nobody);
}

TEST(PlatformThread, NamesOfAnyLengthAreTaken)
{
    EXPECT_GE(Platform::ThreadNameBytes, 15u);
    TestSupport::RunConcurrently(1, [](unsigned) {
        Platform::NameThread("");
        Platform::NameThread("short");
        Platform::NameThread(std::string(10'000, 'x').c_str());
        Platform::NameThread("\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80");
    });
}

struct SNamedHere {};
template <class T>
struct TNamedHere {};

TEST(PlatformThread, DescribesTypesReadably)
{
    char text[200];
    Platform::DescribeType(typeid(SNamedHere).name(), text, sizeof text);
    EXPECT_EQ(std::string(text), "class (anonymous namespace)::SNamedHere");
    Platform::DescribeType(typeid(TNamedHere<int>).name(), text, sizeof text);
    EXPECT_EQ(std::string(text), "class (anonymous namespace)::TNamedHere<int>");
    Platform::DescribeType("no type at all", text, sizeof text);
    EXPECT_EQ(std::string(text), "class no type at all");
    char small[10];
    Platform::DescribeType(typeid(SNamedHere).name(), small, sizeof small);
    EXPECT_EQ(std::string(small), "class (an");
}

TEST(PlatformThread, TellsWhetherAThreadStillRuns)
{
    EXPECT_TRUE(Platform::IsThreadAlive(Platform::GetThreadId()));
    std::atomic<u32> id{0};
    std::atomic<bool> mayEnd{false};
    std::thread other([&] {
        id = Platform::GetThreadId();
        while (!mayEnd)
            std::this_thread::yield();
    });
    while (id == 0)
        std::this_thread::yield();
    EXPECT_TRUE(Platform::IsThreadAlive(id));
    mayEnd = true;
    other.join();
    // The system may take a moment to forget it.
    for (u32 attempt = 0; attempt < 1000 && Platform::IsThreadAlive(id); ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(Platform::IsThreadAlive(id));
}

// The answer at the end of a process: tests/process_end/.
TEST(PlatformThread, EndsNoOtherThreadsBeforeTheEnd)
{
    EXPECT_FALSE(Platform::HasEndedOtherThreads());
}

} // namespace
