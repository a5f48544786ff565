#include "Core_DebugStack.h"

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

} // namespace

void LoadSymbols()
{
    TScopedLock const guard(GetSymbolLock());
    Platform::PrepareSymbols();
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
    TScopedLock const guard(GetSymbolLock());
    Platform::PrepareSymbols();
    for (u64 i = 0; i < count; ++i)
        Describe(addresses[i], frames[i]);
}

} // namespace Velmor::Debug
