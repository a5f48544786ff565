#include "Core_MemoryExtension.h"

#include "Core_BlockAllocator.h"
#include "Core_MemoryHeap.h"
#include "platform/Platform_Fork.h"

#include <bit>
#include <iterator>
#include <new>
#include <utility>

namespace Velmor {

static_assert(CChunkTag::ClassCount == TBlockAllocator<0>::ClassCount);

// ---- Creation and end ----

CHeapExtension::CHeapExtension()
{
    for (u32 number = 0; number < std::size(m_lanes); ++number)
        m_lanes[number].SetNumber(number);
    for (std::atomic<u8>& place : m_places)
        place.store(NoLane, std::memory_order_relaxed);
}

CHeapExtension* CHeapExtension::Create(SMemoryHooks const& hooks)
{
    constexpr u64 Alignment = alignof(CHeapExtension);
    void* const memory = hooks.malloc(sizeof(CHeapExtension) + Alignment);
    if (memory == nullptr)
        return nullptr;
    u64 const address = (reinterpret_cast<u64>(memory) + Alignment - 1) & ~(Alignment - 1);
    CHeapExtension* const extension = ::new (reinterpret_cast<void*>(address)) CHeapExtension;
    extension->m_memory = memory;
    return extension;
}

void CHeapExtension::Release(SMemoryHooks const& hooks)
{
    m_map.Release(hooks);
    m_table.Release(hooks);
    for (SSlab* slab = m_slabs; slab != nullptr;) {
        SSlab* const next = slab->next;
        hooks.free(slab);
        slab = next;
    }
    hooks.free(m_memory);
}

// ---- Copies of the process ----

void CHeapExtension::AcquireLanes()
{
    m_collecting.Acquire();
    for (CHeapLane& lane : m_lanes)
        static_cast<void>(lane.lock.AcquireAsGuest());
}

void CHeapExtension::ReleaseLanes(EFork moment)
{
    if (moment == EFork::InCopy) // the thread has another id there, but its blocks are still those of its lane
        SetLane(Platform::AskThreadId(), GetHome(GetLane(Thread::GetId())));
    for (CHeapLane& lane : m_lanes) {
        if (moment == EFork::InCopy)
            lane.lock.ForgetThreads();
        lane.lock.Release(EBiasedHold::Guest, 0);
    }
    m_collecting.TryRelease();
}

// ---- Records of blocks in chunks ----

// A visit waits for a barrier in the owner's thread, which may take a fraction of a millisecond, and then saves its
// releases a locked instruction each. Few are saved up: who frees many blocks of another lane in a row would have to
// make them all.
bool CHeapLane::AllowVisit()
{
    constexpr u32 AllocationsPerVisitBits = 16;
    u64 allocations = 0;
    for (CLaneClass const& blocks : m_classes)
        allocations += blocks.GetAllocationCount();
    u64 const earned = (allocations - m_allocationsSeen) >> AllocationsPerVisitBits;
    m_allocationsSeen += earned << AllocationsPerVisitBits;
    m_visitsLeft = static_cast<u32>(std::min<u64>(MostVisits, m_visitsLeft + earned));
    if (m_visitsLeft == 0)
        return false;
    --m_visitsLeft;
    return true;
}

void CHeapExtension::SetSize(CChunkRecords::Record& record, u64 size)
{
    u32 const threadId = Thread::GetId();
    CHeapLane& lane = GetLane(threadId);
    if (lane.lock.TryAcquireAsOwner(threadId)) {
        bool const isOwn = lane.Owns(record.load(std::memory_order_relaxed));
        if (isOwn)
            record.store(lane.MakeRecord(size), std::memory_order_relaxed);
        lane.lock.ReleaseAsOwner(threadId);
        if (isOwn)
            return;
    }
    for (CBlockRecord::Value seen = record.load(std::memory_order_relaxed); seen != 0;)
        if (record.compare_exchange_weak(seen, CBlockRecord::Make(size, CBlockRecord::GetMarkOf(seen)),
                                         std::memory_order_relaxed))
            return;
}

u64 CHeapExtension::TakeRecord(CChunkRecords::Record& record)
{
    u32 const threadId = Thread::GetId();
    for (;;) {
        CBlockRecord::Value taken = 0;
        SEntered const own = EnterLane(threadId);
        if (own.lane.IsReviewDue())
            ReviewSharing(own.lane);
        bool const isTaken = TryTakeRecord(own.lane, record, taken);
        own.lane.lock.Release(own.hold, threadId);
        if (isTaken)
            return CBlockRecord::GetSize(taken);
        CBlockRecord::Value const seen = record.load(std::memory_order_relaxed);
        if (seen == 0)
            return 0;
        CHeapLane& lane = m_lanes[CBlockRecord::GetLane(seen)];
        if (&lane != &own.lane && VisitLane(lane, record, taken))
            return CBlockRecord::GetSize(taken);
    }
}

// Takes out the record of a block that another lane handed out; false, and nothing changed, when it is not such a one
// any more.
bool CHeapExtension::VisitLane(CHeapLane& lane, CChunkRecords::Record& record, CBlockRecord::Value& taken)
{
    CBiasedGuard const guard(lane.lock, lane.lock.AcquireAsGuest());
    if (!IsShared(lane.GetMark()) && !lane.AllowVisit()) {
        // In this order: a thread that the system ends in between leaves a lane that still owns its blocks.
        m_sharedMarks.fetch_or(CBlockRecord::GetMarkBit(lane.GetMark()), std::memory_order_release);
        lane.Share();
    }
    taken = record.load(std::memory_order_relaxed);
    return CBlockRecord::GetMarkOf(taken) == lane.GetMark() &&
           record.compare_exchange_strong(taken, 0, std::memory_order_acq_rel);
}

// By the lane's thread, with its lock held: a lane that no other thread frees blocks of any more goes back to a release
// without a locked instruction. Whoever saw that it is shared takes the record out with the lock of its own lane held:
// when each lane has been seen left once, all of them are done. Waits for nobody: a thread may have been put aside in
// its lane. What is not left yet is looked at again a little later.
void CHeapExtension::ReviewSharing(CHeapLane& lane)
{
    u32 const mark = lane.GetMark();
    if (IsShared(mark)) {
        bool const wasEnding = std::exchange(lane.lanesInside, 0u) != 0; // and was shared again
        if (wasEnding || ForgetVisits(lane)) {
            lane.PutOffReview();
            return;
        }
        m_sharedMarks.fetch_and(~CBlockRecord::GetMarkBit(mark), std::memory_order_seq_cst);
        for (u32 number = 0; number < LaneCount; ++number)
            if (&m_lanes[number] != &lane) {
                m_lanes[number].lock.SynchronizeOwner();
                lane.lanesInside |= 1u << number;
            }
    }
    for (u32 number = 0; number < LaneCount; ++number)
        if (u32 const bit = 1u << number; (lane.lanesInside & bit) != 0 && m_lanes[number].lock.HasBeenLeft())
            lane.lanesInside &= ~bit;
    if (lane.lanesInside != 0) {
        lane.HastenReview();
        return;
    }
    lane.PutOffReview();
    lane.Unshare();
}

// True when other lanes' threads took records of this lane's blocks out, without its lock, since the last time.
bool CHeapExtension::ForgetVisits(CHeapLane const& lane)
{
    u32 const mark = lane.GetMark();
    bool isVisited = false;
    for (CHeapLane& other : m_lanes)
        if (&other != &lane && other.HasSeen(mark)) {
            other.Forget(mark);
            isVisited = true;
        }
    return isVisited;
}

// ---- Lanes ----

// A thread gets the first vacant lane: so it goes on with the free blocks and the chunks of one that has ended. If
// another one has its lane, it goes to a vacant one as well. When there is none, the two take turns for a while; if
// they do so too often, it tries a lane whose owner may have nothing to do. Two that have the same place cannot part.
auto CHeapExtension::EnterLane(u32 threadId) -> SEntered
{
    u32 const place = Impl::GetThreadPlace(threadId);
    auto const isApart = [=](u32 other) { return Impl::GetThreadPlace(other) != place; };
    auto const moveToVacant = [=, this] {
        return MoveToLane(threadId, 0, 1, [=](CHeapLane& lane) { return lane.lock.IsVacantFor(threadId); });
    };
    for (;;) {
        CHeapLane& lane = GetLane(threadId);
        if (GetHome(lane) == NoLane) {
            if (!moveToVacant())
                SetLane(threadId, place % LaneCount);
            continue;
        }
        if (lane.lock.TryAcquireAsOwner(threadId))
            return {lane, EBiasedHold::Owner};
        EBiasedHold hold = EBiasedHold::Guest;
        if (u32 const owner = lane.lock.AcquireUnlessOwned(threadId); owner != CBiasedLock::NoThread) {
            if (isApart(owner) && moveToVacant())
                continue;
            hold = lane.lock.Acquire(threadId);
        }
        if (u32 const rival = hold == EBiasedHold::Guest ? lane.lock.GetRival() : CBiasedLock::NoThread;
            rival != CBiasedLock::NoThread && isApart(rival)) {
            u32 const stride = place | 1; // odd: all lanes, in another order for other threads
            if (MoveToLane(threadId, GetHome(lane) + stride, stride,
                           [&](CHeapLane& other) { return &other != &lane && other.lock.HasOwner(); }))
                lane.lock.RestoreOwners();
        }
        return {lane, hold};
    }
}

// The thread has the first lane that suits it from its next visit on; false when none does.
template <class Suits>
bool CHeapExtension::MoveToLane(u32 threadId, u32 first, u32 stride, Suits&& suits)
{
    for (u32 step = 0; step < LaneCount; ++step)
        if (u32 const number = (first + step * stride) % LaneCount; suits(m_lanes[number])) {
            SetLane(threadId, number);
            return true;
        }
    return false;
}

// A lane whose lock was let go in between; the thread may have another one by now.
EBiasedHold CHeapExtension::EnterAgain(CHeapLane& lane, u32 threadId)
{
    return &GetLane(threadId) == &lane ? lane.lock.Acquire(threadId) : lane.lock.AcquireAsGuest();
}

auto CHeapExtension::Take(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, u64 size, ECredit& credit)
    -> STaken
{
    u32 const threadId = Thread::GetId();
    auto [lane, hold] = EnterLane(threadId);
    SFreeSlot const slot = TakeSlowly(heap, blocks, shape, lane, hold, credit);
    if (slot.block == nullptr)
        return {nullptr, false};
    if (slot.record != nullptr)
        Record(lane, lane.GetClass(shape), slot, size);
    lane.lock.Release(hold, threadId);
    return {slot.block, slot.record != nullptr};
}

void CHeapExtension::GiveBack(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, SFreeSlot const& slot,
                              ECredit credit)
{
    u32 const threadId = Thread::GetId();
    auto const [lane, hold] = EnterLane(threadId);
    CBiasedGuard const guard(lane.lock, hold, threadId);
    CLaneClass& magazines = lane.GetClass(shape);
    magazines.CountRelease();
    if (credit == ECredit::None) {
        blocks.GiveBackRow(*this, shape, {&slot, 1});
        return;
    }
    if (!magazines.HasSlots() && !MakeSlots(heap, lane, shape)) {
        blocks.GiveBackRow(*this, shape, {&slot, 1});
        ++lane.credits;
        ReturnCredits(heap, lane);
        return;
    }
    if (magazines.IsFull()) {
        blocks.GiveBackRow(*this, shape, magazines.GetSpare());
        magazines.ClearSpare();
        lane.credits += magazines.RemoveCredits();
        ReturnCredits(heap, lane);
        magazines.SwapMagazines();
    }
    magazines.Push(slot);
}

// With the lane's lock held: the credits that it need not keep.
void CHeapExtension::ReturnCredits(CGlobalHeap& heap, CHeapLane& lane)
{
    if (lane.credits <= MostCredits)
        return;
    heap.ReturnRecords(lane.credits - CreditsAtOnce);
    lane.credits = CreditsAtOnce;
}

void CHeapExtension::GiveBackCredit()
{
    UseLane([](CHeapLane& lane) { ++lane.credits; });
}

// With the lane's lock held, which it keeps on success: a block, and a credit for it. The lock is let go whenever other
// lanes or the record store have to be looked into; what was there before may be gone afterwards.
SFreeSlot CHeapExtension::TakeSlowly(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, CHeapLane& lane,
                                     EBiasedHold& hold, ECredit& credit)
{
    u32 const threadId = Thread::GetId();
    for (;;) {
        if (!MakeCredit(heap, shape, lane, hold, credit))
            return {};
        if (SFreeSlot const slot = TakeFromLane(heap, blocks, shape, lane); slot.block != nullptr)
            return slot;
        // Nothing is refused while another lane has a free block.
        lane.lock.Release(hold, threadId);
        if (!Drain(blocks, shape))
            return {};
        hold = EnterAgain(lane, threadId);
    }
}

// With the lane's lock held, which it keeps on success: a credit for a block of the class, be it the one in hand.
bool CHeapExtension::MakeCredit(CGlobalHeap& heap, SBlockShape const& shape, CHeapLane& lane, EBiasedHold& hold,
                                ECredit& credit)
{
    u32 const threadId = Thread::GetId();
    auto const hasCredit = [&] { return lane.credits != 0 || lane.GetClass(shape).HasCredited(); };
    while (!hasCredit()) {
        lane.credits = heap.ReserveRecords(CreditsAtOnce);
        if (hasCredit())
            break;
        lane.lock.Release(hold, threadId);
        bool const isInHand = credit == ECredit::InHand;
        bool const isThere = heap.MakeFreeRecords(isInHand ? EStoreGrowth::Refused : EStoreGrowth::Allowed);
        if (!isThere && !isInHand)
            return false;
        hold = EnterAgain(lane, threadId);
        if (!isThere) {
            ++lane.credits;
            credit = ECredit::None;
        }
    }
    return true;
}

// With the lane's lock held, and a credit to be had: a block of its magazines, which the class fills when they are
// empty, with its credit. Without memory for magazines one of the class; one without a record, from there too, needs no
// credit.
SFreeSlot CHeapExtension::TakeFromLane(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape,
                                       CHeapLane& lane)
{
    CLaneClass& magazines = lane.GetClass(shape);
    if (magazines.HasCredited())
        return magazines.TakeCredited();
    if (!magazines.HasSlots() && !MakeSlots(heap, lane, shape)) {
        SFreeSlot slot{};
        static_cast<void>(blocks.TakeRow(heap, shape, GetHome(lane), {&slot, 1}));
        if (slot.record != nullptr)
            --lane.credits;
        return slot;
    }
    if (magazines.IsLoadedEmpty())
        magazines.SwapMagazines();
    if (magazines.IsLoadedEmpty()) {
        u32 const count = blocks.TakeRow(heap, shape, GetHome(lane), magazines.GetSlots());
        if (count == 0)
            return {};
        if (SFreeSlot const first = magazines.GetSlots().front(); first.record == nullptr)
            return first;
        magazines.FillLoaded(count);
    }
    lane.credits -= magazines.AddCredits(lane.credits);
    return magazines.TakeCredited();
}

// With the lane's lock held.
bool CHeapExtension::MakeSlots(CGlobalHeap& heap, CHeapLane& lane, SBlockShape const& shape)
{
    u32 const count = 2 * CHeapLane::GetMagazineSize(shape.blockBits);
    void* const memory = heap.AllocateNotes(count * sizeof(SFreeSlot));
    if (memory == nullptr)
        return false;
    lane.SetSlots(shape, ::new (memory) SFreeSlot[count]);
    return true;
}

bool CHeapExtension::Drain(CBlockClass& blocks, SBlockShape const& shape)
{
    bool hasDrained = false;
    for (CHeapLane& lane : m_lanes) {
        if (!lane.HasUsed(shape))
            continue;
        CBiasedGuard const guard(lane.lock, lane.lock.AcquireAsGuest());
        CLaneClass& magazines = lane.GetClass(shape);
        hasDrained = hasDrained || !magazines.IsLoadedEmpty() || !magazines.GetSpare().empty();
        lane.credits += magazines.RemoveCredits();
        blocks.GiveBackRow(*this, shape, magazines.GetSpare());
        blocks.GiveBackRow(*this, shape, magazines.GetLoaded());
        magazines.ClearSpare();
        magazines.FillLoaded(0);
    }
    return hasDrained;
}

auto CHeapExtension::CollectCredits() -> SCollected
{
    SCollected collected{0, nullptr};
    for (CHeapLane& lane : m_lanes) {
        CBiasedGuard const guard(lane.lock, lane.lock.AcquireAsGuest());
        collected.credits += lane.TakeCredits();
        while (lane.HasRecords()) {
            SAllocationRecord& record = lane.PopRecord();
            record.next = std::exchange(collected.records, &record);
        }
    }
    return collected;
}

auto CHeapExtension::GetHookTotals() const -> SHookTotals
{
    // What went first: what had come before it is counted by then, and no difference below 0.
    SHookTotals totals;
    for (CHeapLane const& lane : m_lanes) {
        totals.liveCount -= lane.GetReleasedHookBlocks();
        totals.bytesInUse -= lane.GetSubtractedBytes();
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    for (CHeapLane const& lane : m_lanes) {
        totals.requests += lane.GetHookRequests();
        totals.liveCount += lane.GetHookBlocks();
        totals.bytesInUse += lane.GetAddedBytes();
    }
    return totals;
}

u64 CHeapExtension::GetAllocationCount(EHeap::Type kind) const
{
    u64 count = 0;
    VisitLaneClasses(kind, [&](CLaneClass const& blocks) { count += blocks.GetAllocationCount(); });
    return count;
}

u64 CHeapExtension::GetLiveCount(EHeap::Type kind) const
{
    // The releases first: each one's allocation is counted by then, and the difference never below 0.
    u64 released = 0;
    VisitLaneClasses(kind, [&](CLaneClass const& blocks) { released += blocks.GetReleaseCount(); });
    std::atomic_thread_fence(std::memory_order_acquire);
    return GetAllocationCount(kind) - released;
}

// ---- Chunks ----

void* CHeapExtension::AllocateNotes(SMemoryHooks const& hooks, u64 byteCount)
{
    constexpr u64 LineSize = CChunkRecords::Alignment;
    u64 const size = (byteCount + LineSize - 1) & ~(LineSize - 1);
    if (SlabSize - m_slabUsed < size) {
        void* const memory = hooks.malloc(SlabSize);
        if (memory == nullptr)
            return nullptr;
        m_slabs = ::new (memory) SSlab{m_slabs};
        u64 const address = reinterpret_cast<u64>(memory) + sizeof(SSlab);
        m_slabUsed = sizeof(SSlab) + (LineSize - address % LineSize) % LineSize;
    }
    void* const notes = reinterpret_cast<u8*>(m_slabs) + m_slabUsed;
    m_slabUsed += size;
    return notes;
}

void* CHeapExtension::AllocateRecords(SMemoryHooks const& hooks, u32 blockBits, u64 byteCount)
{
    CChunkRecords*& unused = m_unused[blockBits - SBlockShape::SmallestBits];
    if (unused == nullptr)
        return AllocateNotes(hooks, byteCount);
    return std::exchange(unused, unused->next)->GetRecords();
}

void CHeapExtension::AddChunk(SMemoryHooks const& hooks, void const* start, u32 blockCount, SBlockShape const& shape,
                              u32 home)
{
    if (Find(start).record != nullptr)
        return;
    void* const memory = AllocateRecords(hooks, shape.blockBits, CChunkRecords::GetByteCount(blockCount));
    if (memory == nullptr)
        return;
    CChunkRecords* const chunk = CChunkRecords::Create(memory, start, shape.blockBits, blockCount, shape.kind);
    chunk->SetHome(home);
    if (!m_map.Add(hooks, *chunk))
        chunk->next = std::exchange(m_unused[shape.blockBits - SBlockShape::SmallestBits], chunk);
}

void CHeapExtension::RemoveChunk(void const* start)
{
    CChunkRecords* const chunk = FindChunk(start);
    if (chunk == nullptr)
        return;
    m_map.Remove(*chunk);
    chunk->next = std::exchange(m_removed[chunk->GetBlockBits() - SBlockShape::SmallestBits], chunk);
}

void CHeapExtension::ReuseRemoved()
{
    for (u32 index = 0; index < CChunkTag::ClassCount; ++index)
        while (CChunkRecords* const chunk = m_removed[index]) {
            m_removed[index] = chunk->next;
            chunk->next = std::exchange(m_unused[index], chunk);
        }
}

} // namespace Velmor
