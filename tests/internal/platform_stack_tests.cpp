// The stack walk against the plain unwinder, on stacks of every make: functions with frame pointers, runtime functions
// without that call back, frames of changing size, many depths, from the main thread and from others.
#include "platform/Platform_Stack.h"

#include "support/SystemTraits.h"

#include <gtest/gtest.h>

#include <vlmcore/types.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <thread>
#include <unwind.h>
#include <vector>

using namespace Velmor;

#define VLM_NOINLINE __attribute__((noinline))

namespace {

_Unwind_Reason_Code Note(_Unwind_Context* context, void* argument)
{
    auto& addresses = *static_cast<std::vector<std::uintptr_t>*>(argument);
    if (_Unwind_GetIP(context) != 0)
        addresses.push_back(_Unwind_GetIP(context));
    return _URC_NO_REASON;
}

thread_local int t_sink = 0; // keeps calls from becoming jumps

/// Both captures made in one place: apart from the first address, which lies in the capturing function, they agree.
VLM_NOINLINE void Compare()
{
    std::vector<std::uintptr_t> expected;
    _Unwind_Backtrace(&Note, &expected);
    if (expected.size() > Platform::MaxStackFrames)
        expected.resize(Platform::MaxStackFrames);
    void* addresses[Platform::MaxStackFrames];
    u32 hash = 0;
    u32 const count = Platform::CaptureStack(addresses, &hash);
    ASSERT_GE(count, expected.size());
    for (std::size_t i = 1; i < expected.size(); ++i)
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(addresses[i]), expected[i]) << "frame " << i;
    if (TestSupport::SystemTraits.stackWalkEndsAtThreadStart) {
        ASSERT_EQ(count, expected.size());
        u32 sum = 0;
        for (u32 i = 0; i < count; ++i)
            sum += static_cast<u32>(reinterpret_cast<std::uintptr_t>(addresses[i]));
        ASSERT_EQ(hash, sum);
    }
    t_sink = t_sink + 1;
}

struct SPath {
    std::mt19937 random;
    int depth = 0;
};

thread_local SPath* t_path = nullptr;

VLM_NOINLINE void Step(SPath& path);

int StepFromRuntime(void const*, void const*)
{
    Step(*t_path);
    t_sink = t_sink + 1;
    return 0;
}

VLM_NOINLINE void StepThroughSort(SPath& path)
{
    int values[2] = {1, 2};
    t_path = &path;
    std::qsort(values, 2, sizeof values[0], &StepFromRuntime);
    t_sink = t_sink + 1;
}

VLM_NOINLINE void StepThroughSearch(SPath& path)
{
    int const value = 1;
    t_path = &path;
    static_cast<void>(std::bsearch(&value, &value, 1, sizeof value, &StepFromRuntime));
    t_sink = t_sink + 1;
}

VLM_NOINLINE void StepWithBuffer(SPath& path)
{
    char volatile* const buffer = static_cast<char*>(__builtin_alloca(16 + path.random() % 64));
    buffer[0] = 1;
    Step(path);
    t_sink = t_sink + buffer[0];
}

VLM_NOINLINE void Step(SPath& path)
{
    if (path.depth-- <= 0) {
        Compare();
        return;
    }
    switch (path.random() % 5) {
    case 0:
        StepThroughSort(path);
        break;
    case 1:
        StepThroughSearch(path);
        break;
    case 2:
        StepWithBuffer(path);
        break;
    default:
        Step(path);
        break;
    }
    t_sink = t_sink + 1;
}

void WalkAtRandom(unsigned seed, int rounds)
{
    SPath path{std::mt19937(seed), 0};
    for (int i = 0; i < rounds && !testing::Test::HasFatalFailure(); ++i) {
        path.depth = static_cast<int>(path.random() % 20);
        Step(path);
    }
}

// Stacks that repeat, but for a part.

VLM_NOINLINE void CallFromHere()
{
    Compare();
    t_sink = t_sink + 1;
}

VLM_NOINLINE void CallFromThere()
{
    Compare();
    t_sink = t_sink + 2;
}

VLM_NOINLINE void CallInside(void (*function)())
{
    function();
    t_sink = t_sink + 1;
}

VLM_NOINLINE int CallFromSort(void const*, void const*)
{
    Compare();
    t_sink = t_sink + 1;
    return 0;
}

VLM_NOINLINE void SortHere()
{
    int values[2] = {1, 2};
    std::qsort(values, 2, sizeof values[0], &CallFromSort);
    t_sink = t_sink + 1;
}

/// What is called lies at the same place of the stack whatever `outer` is, up to 15: the frames between move.
VLM_NOINLINE void CallBehind(int rest, void (*function)())
{
    char volatile* const buffer = static_cast<char*>(__builtin_alloca(static_cast<std::size_t>(16 + 16 * rest)));
    buffer[0] = 1;
    function();
    t_sink = t_sink + buffer[0];
}

/// One of two functions: a place of the stack that a frame has moved away from still holds the address of the other.
template <int Which>
VLM_NOINLINE void CallBetween(int outer, void (*function)())
{
    char volatile* const buffer = static_cast<char*>(__builtin_alloca(static_cast<std::size_t>(16 + 16 * outer)));
    buffer[0] = 1;
    CallBehind(15 - outer, function);
    t_sink = t_sink + buffer[0] + Which;
}

} // namespace

TEST(StackWalk, FollowsACallThatChangesInAStackThatRepeats)
{
    for (int round = 0; round < 50 && !testing::Test::HasFatalFailure(); ++round) {
        CallInside(round % 2 == 0 ? &CallFromHere : &CallFromThere);
        CallInside(&CallFromHere);
        CallInside(round % 3 == 0 ? &SortHere : &CallFromThere);
        SortHere();
        CallFromHere();
    }
}

TEST(StackWalk, FollowsFramesThatMoveBetweenFramesThatStay)
{
    for (int round = 0; round < 200 && !testing::Test::HasFatalFailure(); ++round) {
        CallBetween<1>(round * 7 % 16, round % 5 == 0 ? &CallFromThere : &CallFromHere);
        CallBetween<2>(round / 16 % 16, round % 3 == 0 ? &SortHere : &CallFromHere);
    }
}

TEST(StackWalk, AgreesWithTheUnwinderOnTheMainThread)
{
    WalkAtRandom(1, 1000);
}

TEST(StackWalk, AgreesWithTheUnwinderOnOtherThreads)
{
    std::vector<std::thread> threads;
    for (unsigned seed = 10; seed < 13; ++seed)
        threads.emplace_back([seed] { WalkAtRandom(seed, 500); });
    for (std::thread& thread : threads)
        thread.join();
}
