// A whole host inside a plugin: heap, memory event log, call stacks, threads.
#include "Plugin.h"
#include "../support/PluginEntry.h"

#include <vlmcore/debug.h>
#include <vlmcore/files.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/resources.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

using namespace Velmor;

namespace {

constexpr int ThreadCount = 4;
constexpr int RoundCount = 50;

int volatile captureCount = 2; // a number that the compiler does not know: one place in a loop, not two side by side

// Two captures at one place, the second with what the thread remembers of the first.
bool CaptureTwice()
{
    struct SCapture {
        void* addresses[Debug::MaxFrames];
        unsigned int hash;
        unsigned char count;
    };
    SCapture captures[2] = {};
    for (int index = 0; index < captureCount; ++index)
        captures[index].count = Debug::Backtrace(captures[index].addresses, &captures[index].hash);
    return captures[0].count > 1 && captures[0].count == captures[1].count && captures[0].hash == captures[1].hash;
}

void UseMemory(std::atomic<int>& alike)
{
    for (int round = 0; round < RoundCount; ++round) {
        void* const block = Memory::Malloc(24, EHeap::Pool);
        alike += CaptureTwice() ? 1 : 0;
        Memory::Free(block);
    }
}

constexpr LateLoad::SPlugin Plugin = {[] {
    std::atomic<int> alike{0};
    Memory::Initialize(0, 0);
    bool isLogWritten = false;
    {
        TResourcePtr<IFile> const events = MakeResource<CMemoryFile>("events.json");
        TResourcePtr<IFile> const stacks = MakeResource<CMemoryFile>("stacks.json");
        {
            CFileMemoryLogger logger(events, stacks, 256);
            Memory::InitializeLog(&logger);
            UseMemory(alike);
            std::vector<std::thread> threads;
            for (int index = 0; index < ThreadCount; ++index)
                threads.emplace_back([&] { UseMemory(alike); });
            for (std::thread& thread : threads)
                thread.join();
            Memory::ReleaseLog();
        }
        // An event is a line of more than a hundred bytes.
        isLogWritten =
            events->GetSizeByte() > u64{100} * 2 * RoundCount * (ThreadCount + 1) && stacks->GetSizeByte() > 100;
    }
    Memory::Deinitialize();
    return isLogWritten ? alike.load() : 0;
}};

} // namespace

VLMCORE_TEST_PLUGIN(Plugin)
