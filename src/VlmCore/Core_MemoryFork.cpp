// The heap while the process is copied: whole, with nobody inside.
#include "Core_MemoryModule.h"

namespace Velmor {

namespace {

/// Whose lanes are held. A heap may be extended until its own lock is held.
CHeapExtension* g_heldExtension = nullptr;

} // namespace

void SHeapModule::FollowFork(EFork moment)
{
    auto const followInPools = [this](EFork now) {
        VisitPools([now](auto* allocator) {
            if (allocator != nullptr)
                allocator->FollowFork(now);
        });
    };
    auto const releaseLanesAndPools = [&](EFork now) {
        followInPools(now);
        if (g_heldExtension != nullptr)
            g_heldExtension->ReleaseLanes(now);
    };

    if (moment == EFork::Before) {
        g_quietExtensionLock.Acquire();
        for (;;) {
            g_heldExtension = heap->GetExtension();
            if (g_heldExtension != nullptr)
                g_heldExtension->AcquireLanes();
            followInPools(EFork::Before);
            heap->GetLock().Acquire();
            if (heap->GetExtension() == g_heldExtension)
                break;
            heap->GetLock().TryRelease();
            releaseLanesAndPools(EFork::InOriginal);
        }
        if (g_heldExtension != nullptr)
            g_heldExtension->GetTable().AcquireAll();
        return;
    }
    if (g_heldExtension != nullptr)
        g_heldExtension->GetTable().ReleaseAll();
    heap->GetLock().TryRelease();
    releaseLanesAndPools(moment);
    g_quietExtensionLock.TryRelease();
}

} // namespace Velmor
