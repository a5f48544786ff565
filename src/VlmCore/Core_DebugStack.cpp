#include "Core_DebugStack.h"

#include "Core_Fork.h"
#include "Core_Log.h"
#include "platform/Platform_Stack.h"
#include "platform/Platform_Symbols.h"

#include <vlmcore/debug.h>

#include <atomic>
#include <cstring>

namespace Velmor::Debug {

static_assert(MaxFrames == Platform::MaxStackFrames);

CRecursiveSpinLock& GetSymbolLock()
{
    static constinit CRecursiveSpinLock lock;
    return lock;
}

namespace {

/// Keeps a capturing function on the stack it captures: what it calls is not the last thing it does, so that the call
/// cannot become a jump.
void StayOnStack()
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

/// Resolves one address; the caller holds the symbol lock and has prepared the symbols.
void Describe(void* address, SCallstackLine& frame)
{
    Platform::DescribeAddress(address, frame);
    if (frame.file[0] == '\0')
        std::strcpy(frame.file, "unknown_file");
    frame.address = reinterpret_cast<u64>(address);
}

/// Says once, to the first logger that is there to hear it, why stacks have no names. Not under the symbol lock.
void ReportMissingLibrary() noexcept
{
    static std::atomic<bool> reported{false};
    if (!Log::HasLogger() || reported.exchange(true))
        return;
    try {
        Log::WarningF("No debugging library (%s): call stacks lack names and lines.", Platform::DebugLibraryName);
    }
    catch (...) {
        Print("The log failed to take a warning about the debugging library.\n");
    }
}

/// The symbols are whole in a copy of the process.
void FollowFork(void*, EFork moment)
{
    if (moment == EFork::Before)
        GetSymbolLock().Acquire();
    else
        GetSymbolLock().TryRelease();
}

/// When the library is unloaded, or the process ends, nobody has use for the symbols any more. But for a thread that is
/// at it, this one included if a signal's handler ends the process: then the process takes them along.
struct SSymbolsEnd {
    ~SSymbolsEnd()
    {
        Fork::Withdraw(&GetSymbolLock());
        CRecursiveSpinLock& lock = GetSymbolLock();
        if (!lock.IsOwned() && lock.TryAcquire()) {
            Platform::ReleaseSymbols();
            lock.TryRelease();
        }
    }
};

constinit SSymbolsEnd symbolsEnd;

} // namespace

void LoadSymbols()
{
    static std::atomic<bool> isEnrolled{false};
    if (!isEnrolled.exchange(true))
        Fork::Enrol(EForkRank::Symbols, &GetSymbolLock(), &FollowFork);
    bool hasLibrary = false;
    {
        TScopedLock const guard(GetSymbolLock());
        hasLibrary = Platform::PrepareSymbols();
    }
    if (!hasLibrary)
        ReportMissingLibrary();
}

unsigned char Backtrace(void** addresses, unsigned int* hash)
{
    u32 const count = Platform::CaptureStack(addresses, hash);
    StayOnStack();
    return static_cast<unsigned char>(count);
}

unsigned char UnwindCallStack(SCallstackLine* frames, unsigned int* hash)
{
    void* addresses[MaxFrames];
    u32 const count = Platform::CaptureStack(addresses, hash);
    ResolveSymbols(addresses, frames, count);
    return static_cast<unsigned char>(count);
}

void ResolveSymbol(void* address, SCallstackLine& frame)
{
    ResolveSymbols(&address, &frame, 1);
}

void ResolveSymbols(void** addresses, SCallstackLine* frames, u64 count)
{
    if (frames == nullptr || count == 0)
        return;
    LoadSymbols();
    TScopedLock const guard(GetSymbolLock());
    for (u64 i = 0; i < count; ++i)
        Describe(addresses[i], frames[i]);
}

} // namespace Velmor::Debug
