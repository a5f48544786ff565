// Labels: threads
// Objects of threads in pages of their own.
#include "Posix_ThreadObjects.h"

#include <vlmcore/debug.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

using namespace Velmor;
using Velmor::Platform::TThreadObjects;

namespace {

struct SObject {
    int number = 7;
};

thread_local SObject* t_object = nullptr;

SObject*& GetWord()
{
    return t_object;
}

// A thread's pages are looked for in turn when others are claimed: some of those that ended may still be there.
TEST(ThreadObjects, ThoseOfThreadsThatEndedGo)
{
    {
        TThreadObjects<SObject> objects(&GetWord);
        for (int round = 0; round < 200; ++round) {
            std::thread thread([&] {
                SObject* const object = objects.Claim();
                ASSERT_NE(object, nullptr);
                EXPECT_EQ(object, t_object);
                EXPECT_EQ(object->number, 7);
                object->number = 8;
            });
            thread.join();
            EXPECT_LE(objects.GetCount(), 2u);
        }
        EXPECT_EQ(t_object, nullptr);
        EXPECT_NE(objects.Claim(), nullptr);
        EXPECT_EQ(objects.GetCount(), 1u);
    }
    EXPECT_EQ(t_object, nullptr); // the thread's own goes with the owner of all
}

TEST(ThreadObjects, AThreadKeepsItsOwnWhateverOthersDo)
{
    TThreadObjects<SObject> objects(&GetWord);
    SObject* const own = objects.Claim();
    ASSERT_NE(own, nullptr);
    own->number = 1;
    EXPECT_EQ(objects.Claim(), own);
    std::atomic<int> ready{0};
    std::atomic<bool> areAllReady{false};
    std::vector<std::thread> threads;
    for (int index = 0; index < 20; ++index)
        threads.emplace_back([&, index] {
            SObject* object = nullptr;
            while ((object = objects.Claim()) == nullptr) // others were asking
                std::this_thread::yield();
            object->number = 100 + index;
            ++ready;
            while (!areAllReady)
                std::this_thread::yield();
            EXPECT_EQ(object->number, 100 + index);
        });
    while (ready != 20)
        std::this_thread::yield();
    EXPECT_EQ(objects.GetCount(), 21u);
    areAllReady = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(own->number, 1);
    for (int claim = 0; claim < 4; ++claim)
        std::thread([&] { EXPECT_NE(objects.Claim(), nullptr); }).join();
    EXPECT_LE(objects.GetCount(), 3u);
    EXPECT_EQ(own->number, 1);
}

// In the child the numbers of the parent's threads mean nothing, its own first of all.
TEST(ThreadObjects, AForkedProcessTakesNobodysPage)
{
    TThreadObjects<SObject> objects(&GetWord);
    SObject* const own = objects.Claim();
    ASSERT_NE(own, nullptr);
    own->number = 1;
    pid_t const child = ::fork();
    if (child == 0) {
        bool isWell = objects.Claim() == own;
        for (int round = 0; round < 20; ++round)
            std::thread([&] {
                SObject* const object = objects.Claim();
                isWell = isWell && object != nullptr && object != own;
            }).join();
        ::_exit(isWell && own->number == 1 && objects.GetCount() <= 3 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

std::atomic<int> capturesInHandler{0};

void CaptureInHandler(int)
{
    void* addresses[Debug::MaxFrames];
    if (Debug::Backtrace(addresses, nullptr) > 1)
        capturesInHandler.fetch_add(1, std::memory_order_relaxed);
}

[[gnu::noinline]] int CaptureDeeply(int depth)
{
    void* addresses[Debug::MaxFrames];
    if (depth == 0)
        return Debug::Backtrace(addresses, nullptr);
    int const count = CaptureDeeply(depth - 1);
    return count == 0 ? 0 : count + 1;
}

// A profiler's signals come wherever they like, in the middle of a capture too. Each thread has captured once before it
// lets them in: what the C runtime does for a first capture is not for a signal's handler.
TEST(SignalHandlers, CaptureWhileTheThreadDoes)
{
    struct sigaction action{};
    action.sa_handler = &CaptureInHandler;
    action.sa_flags = SA_RESTART;
    struct sigaction before{};
    ASSERT_EQ(::sigaction(SIGPROF, &action, &before), 0);
    sigset_t profiling;
    sigemptyset(&profiling);
    sigaddset(&profiling, SIGPROF);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &profiling, nullptr), 0);
    itimerval const often{{0, 200}, {0, 200}};
    ASSERT_EQ(::setitimer(ITIMER_PROF, &often, nullptr), 0);

    std::vector<std::thread> threads;
    for (int index = 0; index < 2; ++index)
        threads.emplace_back([&] {
            EXPECT_GT(CaptureDeeply(0), 1);
            ::pthread_sigmask(SIG_UNBLOCK, &profiling, nullptr);
            for (int round = 0; round < 100000 || (capturesInHandler < 20 && round < 20000000); ++round)
                ASSERT_GT(CaptureDeeply(round % 8), 1);
            ::pthread_sigmask(SIG_BLOCK, &profiling, nullptr);
        });
    for (std::thread& thread : threads)
        thread.join();

    itimerval const never{};
    ::setitimer(ITIMER_PROF, &never, nullptr);
    action.sa_handler = SIG_IGN; // what is still pending
    ::sigaction(SIGPROF, &action, nullptr);
    ::pthread_sigmask(SIG_UNBLOCK, &profiling, nullptr);
    ::sigaction(SIGPROF, &before, nullptr);
    EXPECT_GE(capturesInHandler, 20);
}

} // namespace
