// Copies of the process: what of the library goes on in a child that was forked while other threads were at work in it.
#include "../TestHeap.h"
#include "../support/Folders.h"
#include "Core_MemoryModule.h"

#include <vlmcore/vlmcore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Velmor;

namespace {

/// Runs `body` in a child: what it returns; false, too, when it has not come to its end after twenty seconds.
template <class Body>
[[nodiscard]] bool RunInChild(Body const& body)
{
    pid_t const child = ::fork();
    if (child == 0)
        ::_exit(body() ? 0 : 1);
    int status = -1;
    for (int wait = 0; wait < 2000; ++wait) {
        if (::waitpid(child, &status, WNOHANG) == child)
            return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return false;
}

void WaitFor(std::atomic<bool> const& flag)
{
    while (!flag)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

/// Keeps its writer, of the process that made it, inside Write until it is let go.
class CHoldingFile final : public CNullFile {
public:
    CHoldingFile() : CNullFile("holding") {}

    u64 Write(void const* data, u64 size) override
    {
        if (::getpid() == m_process) {
            isHeld = true;
            WaitFor(mayGo);
        }
        text.append(static_cast<char const*>(data), size);
        return size;
    }

    std::atomic<bool> isHeld{false};
    std::atomic<bool> mayGo{false};
    std::string text;

private:
    pid_t const m_process = ::getpid();
};

[[nodiscard]] u64 Count(std::string const& text, std::string const& part)
{
    u64 count = 0;
    for (u64 at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

class CCountJob final : public IThreadJob {
public:
    explicit CCountJob(std::atomic<int>& count) : m_count(count) {}
    void Execute() override { ++m_count; }

private:
    std::atomic<int>& m_count;
};

class CHeldJob final : public IThreadJob {
public:
    CHeldJob(std::atomic<bool>& isHeld, std::atomic<bool> const& mayGo) : m_isHeld(isHeld), m_mayGo(mayGo) {}
    void Execute() override
    {
        m_isHeld = true;
        WaitFor(m_mayGo);
    }

private:
    std::atomic<bool>& m_isHeld;
    std::atomic<bool> const& m_mayGo;
};

class CTicker final : public IThread {
public:
    ~CTicker() override { Join(); }
    std::atomic<int> ticks{0};

private:
    void Execute() override
    {
        ++ticks;
        Thread::Sleep(1);
    }
};

constexpr EHeap::Type Kinds[] = {EHeap::General, EHeap::Pool, EHeap::Pool4, EHeap::Pool8, EHeap::Pool16};

[[nodiscard]] bool UseHeap()
{
    std::vector<void*> blocks;
    for (u64 size = 1; size < 3000; size += 7)
        for (EHeap::Type const kind : Kinds)
            blocks.push_back(Memory::Malloc(size, kind));
    bool isWell = true;
    for (void* const block : blocks) {
        isWell = isWell && block != nullptr && Memory::GetSize(block) != 0;
        Memory::Free(block);
    }
    Memory::Purge();
    return isWell;
}

} // namespace

TEST(Fork, TheChildHasAWholeHeapWhateverOtherThreadsDidInIt)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (u32 number = 0; number < 4; ++number)
        threads.emplace_back([&, number] {
            void* blocks[64] = {};
            for (u64 step = number; !stop; ++step) {
                void*& block = blocks[step * 31 % 64];
                Memory::Free(block);
                // Large ones, too: they are what the record table's locks are taken for.
                block = Memory::Malloc(step * 37 % 2048 + 1, Kinds[step % 5]);
            }
            for (void* const block : blocks)
                Memory::Free(block);
        });
    int well = 0;
    for (int round = 0; round < 25; ++round)
        well += RunInChild(&UseHeap) ? 1 : 0;
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(well, 25);
    EXPECT_TRUE(UseHeap());
}

// It has another id there; its blocks are those of the lane that it had.
TEST(Fork, TheChildsThreadKeepsItsLane)
{
    for (u32 count = 0; count < 5000; ++count) // a heap that is used a lot has lanes
        Memory::Free(Memory::Malloc(64, EHeap::Pool));
    auto const findLane = [] {
        CHeapLane* found = nullptr;
        g_heapModule.heap->GetExtension()->UseLane([&](CHeapLane& lane) { found = &lane; });
        return found;
    };
    ASSERT_NE(g_heapModule.heap->GetExtension(), nullptr);
    CHeapLane* const lane = findLane();
    EXPECT_TRUE(RunInChild([&] { return findLane() == lane; }));
    EXPECT_TRUE(RunInChild([&] { return RunInChild([&] { return findLane() == lane; }); }));
}

TEST(Fork, TheChildsThreadHasAnIdOfItsOwn)
{
    CRecursiveSpinLock lock;
    u32 const parents = Thread::GetId();
    EXPECT_TRUE(RunInChild([&] {
        bool const isOwn = Thread::GetId() != parents && Thread::GetId() == static_cast<u32>(::syscall(SYS_gettid));
        lock.Acquire();
        lock.Release();
        return isOwn;
    }));
    EXPECT_EQ(Thread::GetId(), parents);
}

TEST(Fork, AThreadThatWasLeftBehindIsJoinedAtOnceAndCanBeStartedAnew)
{
    CTicker ticker;
    ticker.RunLooped();
    while (ticker.ticks == 0)
        Thread::Sleep(1);
    EXPECT_TRUE(RunInChild([&] {
        ticker.Join();
        bool const isIdle = !ticker.IsRunning() && ticker.GetThreadId() == IThread::NoThreadId;
        ticker.ticks = 0;
        ticker.RunLooped();
        while (ticker.ticks < 3)
            Thread::Sleep(1);
        ticker.Join();
        return isIdle;
    }));
    EXPECT_TRUE(ticker.IsRunning());
    ticker.Join();
}

TEST(Fork, AnUnbufferedLoggerOfTheChildWaitsForNobody)
{
    auto const file = MakeResource<CHoldingFile>();
    CFileLogger logger(TResourcePtr<IFile>(file), 0);
    std::thread writer([&] { logger.Write(Log::EMessage::Info, 1, "parent"); });
    WaitFor(file->isHeld);
    EXPECT_TRUE(RunInChild([&] {
        logger.Write(Log::EMessage::Info, 2, "child");
        return file->text == "2: [Info] child\n";
    }));
    file->mayGo = true;
    writer.join();
    logger.Write(Log::EMessage::Info, 3, "again");
    EXPECT_EQ(file->text, "1: [Info] parent\n3: [Info] again\n");
}

TEST(Fork, ABufferedLoggerGoesOnInTheChildAndRepeatsNothing)
{
    auto const file = MakeResource<CHoldingFile>();
    auto logger = std::make_unique<CFileLogger>(TResourcePtr<IFile>(file), u64{256});
    logger->Write(Log::EMessage::Info, 1, "first of the parent");
    WaitFor(file->isHeld); // by the writer, which the child will not have
    logger->Write(Log::EMessage::Info, 2, "second of the parent");
    EXPECT_TRUE(RunInChild([&] {
        for (u64 line = 0; line < 200; ++line) // many more than both buffers hold
            logger->Write(Log::EMessage::Info, line, "of the child");
        logger.reset();
        return Count(file->text, "of the child") == 200 && Count(file->text, "parent") == 0;
    }));
    // Nor does one that is only destroyed there write anything.
    EXPECT_TRUE(RunInChild([&] {
        logger.reset();
        return file->text.empty();
    }));
    file->mayGo = true;
    logger.reset();
    EXPECT_EQ(file->text, "1: [Info] first of the parent\n2: [Info] second of the parent\n");
}

TEST(Fork, APoolStartsOverInTheChild)
{
    std::atomic<bool> isHeld{false};
    std::atomic<bool> mayGo{false};
    std::atomic<int> count{0};
    auto pool = std::make_unique<CThreadPool>(u8{1});
    pool->PushJob(Memory::New<CHeldJob>(EHeap::Pool, isHeld, mayGo));
    WaitFor(isHeld);
    pool->PushJob(Memory::New<CCountJob>(EHeap::Pool, count)); // waits, and is the parent's
    EXPECT_TRUE(RunInChild([&] {
        pool->WaitForJobs();
        bool isWell = pool->IsEmpty() && count == 0;
        for (int job = 0; job < 1000; ++job)
            pool->PushJob(Memory::New<CCountJob>(EHeap::Pool, count));
        pool->WaitForJobs();
        isWell = isWell && count == 1000;
        pool.reset();
        return isWell;
    }));
    EXPECT_TRUE(RunInChild([&] {
        pool.reset(); // as at the end of a child that never used it
        return count == 0;
    }));
    mayGo = true;
    pool->WaitForJobs();
    EXPECT_EQ(count, 1);
}

TEST(Fork, AMemoryLogStaysTheParents)
{
    for (u64 const capacity : {u64{0}, u64{16}}) {
        char const* const events = "posix_fork_events.json";
        char const* const stacks = "posix_fork_stacks.json";
        auto logger = std::make_unique<CFileMemoryLogger>(events, stacks, capacity);
        Memory::InitializeLog(logger.get());
        Memory::Free(Memory::Malloc(10, EHeap::Pool));
        while (Count(TestSupport::ReadText(events), "\"free\"") == 0) // until the writer is done with them
            Thread::Sleep(1);
        u64 const size = std::filesystem::file_size(events);
        EXPECT_TRUE(RunInChild([&] {
            bool const isOut = Memory::ReleaseLog() == nullptr;
            for (int block = 0; block < 100; ++block) {
                logger->OnAllocate(&block, 1); // as a logger that passes events on would
                Memory::Free(Memory::Malloc(10, EHeap::Pool));
            }
            logger.reset();
            return isOut && std::filesystem::file_size(events) == size;
        }));
        EXPECT_EQ(Memory::ReleaseLog(), logger.get());
        logger.reset();
        std::filesystem::remove(events);
        std::filesystem::remove(stacks);
    }
}

TEST(Fork, WhatLiesOnAnotherThreadsStackIsForgottenInTheChild)
{
    auto const file = MakeResource<CHoldingFile>();
    file->mayGo = true;
    std::atomic<bool> isThere{false};
    std::atomic<bool> mayGo{false};
    std::thread other([&] {
        CThreadPool pool(1);
        CFileLogger logger(TResourcePtr<IFile>(file), 256);
        isThere = true;
        WaitFor(mayGo);
    });
    WaitFor(isThere);
    EXPECT_TRUE(RunInChild([] {
        for (int thread = 0; thread < 3; ++thread) // they get the stack that the other one had
            std::thread([] {
                char volatile bytes[1 << 20];
                for (char volatile& byte : bytes)
                    byte = '\xCC';
            }).join();
        return RunInChild(&UseHeap);
    }));
    mayGo = true;
    other.join();
}

TEST(Fork, AJobThatForksIsAJobInTheChildToo)
{
    struct CForkJob final : IThreadJob {
        explicit CForkJob(CThreadPool& owner) : pool(owner) {}
        void Execute() override
        {
            isWell = RunInChild([this] {
                try {
                    pool.WaitForJobs(); // for itself
                }
                catch (CException const&) {
                    std::atomic<int> count{0};
                    pool.PushJob(Memory::New<CCountJob>(EHeap::Pool, count));
                    while (count == 0) // on another worker
                        Thread::Sleep(1);
                    return true;
                }
                return false;
            });
        }
        [[nodiscard]] bool AutoDelete() const override { return false; }

        CThreadPool& pool;
        bool isWell = false;
    };
    CThreadPool pool(2);
    CForkJob job(pool);
    pool.PushJob(&job);
    pool.WaitForJobs();
    EXPECT_TRUE(job.isWell);
}

TEST(Fork, APoolWhoseHeapIsGoneIsLeftAlone)
{
    auto pool = std::make_unique<CThreadPool>(u8{2});
    Memory::Deinitialize();
    EXPECT_TRUE(RunInChild([] { return true; }));
    pool.reset();
    Memory::Initialize(0, 0);
}

TEST(Fork, AJoinThatAnotherThreadWasAtIsDoneInTheChild)
{
    class CHeldThread final : public IThread {
    public:
        ~CHeldThread() override { Join(); }
        std::atomic<bool> isHeld{false};
        std::atomic<bool> mayGo{false};

    private:
        void Execute() override
        {
            isHeld = true;
            WaitFor(mayGo);
        }
    };
    CHeldThread thread;
    thread.Run();
    WaitFor(thread.isHeld);
    std::thread joiner([&] { thread.Join(); });
    Thread::Sleep(50); // most likely it waits now
    EXPECT_TRUE(RunInChild([&] {
        thread.Join();
        return !thread.IsRunning();
    }));
    thread.mayGo = true;
    joiner.join();
}

namespace {

std::atomic<bool> g_isInAssertion{false};
std::atomic<bool> g_mayLeaveAssertion{false};
pid_t g_assertingProcess = 0;

bool HoldInAssertion(char const*, long, char const*, char const*, char*)
{
    if (::getpid() == g_assertingProcess) {
        g_isInAssertion = true;
        WaitFor(g_mayLeaveAssertion);
    }
    return false;
}

} // namespace

TEST(Fork, AnAssertionOfTheChildWaitsForNobody)
{
    g_assertingProcess = ::getpid();
    Debug::SetAssertHandler(&HoldInAssertion);
    std::thread asserting([] { static_cast<void>(Debug::Assert("file.cpp", 1, "expression", "text")); });
    WaitFor(g_isInAssertion);
    EXPECT_TRUE(RunInChild([] { return !Debug::Assert("file.cpp", 2, "expression", "text"); }));
    g_mayLeaveAssertion = true;
    asserting.join();
    Debug::SetAssertHandler(nullptr);
}
