// A user who may have no more threads: what only uses threads to be faster is done without.
#include "support/DebuggedProcess.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/memory.h>
#include <vlmcore/threads.h>

#include <algorithm>
#include <vector>

#include <dirent.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace Velmor;

namespace {

/// A user without a process of its own, for one who is not held to limits.
constexpr uid_t NobodyElse = 2345678;

enum EResult : int { Done = 0, Unlimited = 1, NotPurged = 2, Threw = 3, WrongStart = 4 };

bool CanStartThread()
{
    pthread_t thread;
    if (::pthread_create(&thread, nullptr, [](void* argument) { return argument; }, nullptr) != 0)
        return false;
    ::pthread_join(thread, nullptr);
    return true;
}

/// Lets the process have `count` threads more. For a user who has processes elsewhere, none or more than that.
class CFewThreads {
public:
    explicit CFewThreads(unsigned count)
    {
        if (::geteuid() == 0)
            static_cast<void>(!::setresuid(NobodyElse, NobodyElse, NobodyElse));
        ::getrlimit(RLIMIT_NPROC, &m_before);
        rlimit few = m_before;
        few.rlim_cur = 1 + count;
        ::setrlimit(RLIMIT_NPROC, &few);
    }
    CFewThreads(CFewThreads const&) = delete;
    CFewThreads& operator=(CFewThreads const&) = delete;
    ~CFewThreads() { ::setrlimit(RLIMIT_NPROC, &m_before); }

private:
    rlimit m_before{};
};

u64 CountChunks()
{
    Memory::SStatistics statistics;
    if (!Memory::GetStatistics(statistics))
        return 0;
    u64 count = 0;
    for (auto const& pool : statistics.pools)
        for (auto const& sizeClass : pool.classes)
            count += sizeClass.chunkCount;
    return count;
}

/// Free chunks in all four allocators, and none that is not.
void FillAndEmpty()
{
    std::vector<void*> blocks;
    for (EHeap::Type const heap : {EHeap::Pool, EHeap::Pool4, EHeap::Pool8, EHeap::Pool16})
        for (unsigned i = 0; i < 30000; ++i)
            blocks.push_back(Memory::Malloc(16 + i % 100, heap));
    for (void* const block : blocks)
        Memory::Free(block);
}

/// Purges with so many threads at most; the limit must hold.
int PurgeWith(unsigned threads)
{
    Memory::Initialize(0, 0);
    Memory::Purge();
    u64 const least = CountChunks();
    for (unsigned round = 0; round < 3; ++round) {
        FillAndEmpty();
        if (CountChunks() < least + 20)
            return WrongStart;
        CFewThreads const few(threads);
        if (threads == 0 && CanStartThread())
            return Unlimited;
        try {
            Memory::Purge();
        }
        catch (...) {
            return Threw;
        }
        if (CountChunks() > least + 4) // a page or two of this thread's own may stay
            return NotPurged;
    }
    Memory::Deinitialize();
    return Done;
}

void ExpectPurged(char const* child)
{
    TestSupport::SChildResult const result = TestSupport::RunChild(child);
    if (result.exitCode == Unlimited)
        GTEST_SKIP() << "this user has as many threads as there are";
    EXPECT_EQ(result.exitCode, u32{Done}) << result.standardError;
}

} // namespace

VLMCORE_CHILD(PurgesWithoutAThread)
{
    return PurgeWith(0);
}

VLMCORE_CHILD(PurgesWithOneThread)
{
    return PurgeWith(1);
}

TEST(ThreadLimit, APurgeIsDoneByItsCallerWhenNoThreadCanBeStarted)
{
    ExpectPurged("PurgesWithoutAThread");
}

TEST(ThreadLimit, APurgeIsDoneByTheThreadsThatThereAre)
{
    ExpectPurged("PurgesWithOneThread");
}
