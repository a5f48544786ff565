// What a heap has in addition once it holds more than 1,024 records or is used a lot: buckets that grow, records of
// pool blocks that are found without a lock, and lanes, so that threads do not stand in each other's way.
//
//     CGlobalHeap -- CHeapExtension -+- CRecordTable     blocks of the hooks, and those of chunks not in the map
//                                    +- CChunkMap        address -> CChunkRecords, the records of pool blocks
//                                    +- CFreeChunks [32] chunks with free blocks, by class
//                                    +- CHeapLane [32]   free pool blocks, free records and counters, a lane per thread
//
// All memory of it comes from the malloc hook and is counted nowhere. Without memory for it, the heap goes on as
// before, with longer chains.
//
// Every record in a chunk's notes stands for one of the record store, which counts as taken: the store grows, and with
// it the bytes in use, by the number of recorded blocks alone, wherever their records lie. Lanes draw such credits by
// the dozen.
//
// Order of locks: collecting, lane, class, heap, shard of the record table.
#pragma once

#include "Core_BiasedLock.h"
#include "Core_Fork.h"
#include "Core_MemoryChunkMap.h"
#include "Core_MemoryDebug.h"
#include "Core_MemoryRecords.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/threads.h>
#include <vlmcore/types.h>

#include <algorithm>
#include <bit>
#include <span>
#include <utility>

namespace Velmor {

class CBlockClass;
class CGlobalHeap;

/// The shape of a class's blocks.
struct SBlockShape {
    u64 blockSize;
    u64 alignment; ///< bytes that each chunk has in front for it; 0 for none
    u32 blockBits; ///< base-2 logarithm of the block size, 3 to 10
    EHeap::Type kind;

    static constexpr u32 SmallestBits = 3;
    static constexpr u32 LargestBits = 10;

    /// The class for `size` bytes, above 0: the base-2 logarithm of its block size, above 10 for what is no pool block.
    [[nodiscard]] static constexpr u32 GetBlockBits(EHeap::Type kind, u64 size)
    {
        // Bits that are set: a number that cannot be 0 needs no branch, and 16 for Pool16 no comparison.
        return static_cast<u32>(std::bit_width((size - 1) | 7 | (kind & EHeap::Pool16) << 1));
    }
};

static_assert(SBlockShape::GetBlockBits(EHeap::Pool, 1) == 3 && SBlockShape::GetBlockBits(EHeap::Pool4, 1) == 3 &&
              SBlockShape::GetBlockBits(EHeap::Pool8, 1) == 3 && SBlockShape::GetBlockBits(EHeap::Pool16, 1) == 4);

/// The numbers of the classes that serve sizes, as chunk tags have them, looked up: the instruction that finds the
/// highest bit takes eight steps of some processors.
class CClassNumbers {
public:
    consteval CClassNumbers()
    {
        for (u32 kind = EHeap::Pool; kind < EHeap::Pool + CChunkTag::KindCount; ++kind)
            for (u64 size = 1; size <= LargestSize; size += Step)
                m_numbers[kind - EHeap::Pool][(size - 1) / Step] = static_cast<u8>(CChunkTag::GetNumber(
                    static_cast<EHeap::Type>(kind), SBlockShape::GetBlockBits(static_cast<EHeap::Type>(kind), size)));
    }

    /// \param kind  a pool's
    /// \param size  of 1 to 1,024 bytes
    [[nodiscard]] constexpr u32 Find(EHeap::Type kind, u64 size) const
    {
        return m_numbers[kind - EHeap::Pool][(size - 1) / Step];
    }

private:
    static constexpr u64 LargestSize = u64{1} << SBlockShape::LargestBits;
    static constexpr u64 Step = u64{1} << SBlockShape::SmallestBits;

    u8 m_numbers[CChunkTag::KindCount][LargestSize / Step] = {};
};

inline constexpr CClassNumbers ClassNumbers;

/// Whether the record store may grow for a record that it does not have.
enum class EStoreGrowth : u8 { Allowed, Refused };

/// Whether somebody has a credit in hand: a record of the store, set aside for a block whose own was taken out.
enum class ECredit : u8 { None, InHand };

/// The rules by which records are taken out, over any word with the members of std::atomic, so that they can be checked
/// step by step.
namespace Impl {

/// In the lane of the calling thread, whose lock is held: true when the record could be taken out this way, which is
/// then in `taken`; else nothing is changed. A block of the lane's own costs no locked instruction.
/// \param owns  says for a record whether the lane does
/// \param isShared  says for a record whether it may be taken out by whoever is quicker: the record of a shared lane,
///                  or of the calling thread's own
template <class Word, class Owns, class IsShared>
[[gnu::always_inline]] inline bool TryTakeRecord(Word& record, CBlockRecord::Value& taken, Owns&& owns,
                                                 IsShared&& isShared)
{
    taken = record.load(std::memory_order_relaxed);
    if (owns(taken)) [[likely]] {
        record.store(0, std::memory_order_relaxed);
        return true;
    }
    return isShared(taken) && record.compare_exchange_strong(taken, 0, std::memory_order_acq_rel);
}

} // namespace Impl

/// A free pool block and where its record goes: null for a block of a chunk without notes.
struct SFreeSlot {
    SFreeBlock* block;
    CChunkRecords::Record* record;
};

/// A lane's free blocks of one class, in two magazines, last in, first out: the loaded one, and a spare one, so that a
/// thread that allocates and frees by turns at the end of one does not go to the class each time. Blocks are named in
/// slots, not linked through: they are not touched from their release until whoever gets them next uses them.
///
/// A block in the loaded magazine mostly comes with a credit, a record set aside for it, so that taking it is all there
/// is to do. Blocks without one lie below. Without slots it is empty and full at once.
class alignas(64) CLaneClass {
public:
    // ---- The quick way ----

    [[nodiscard]] bool HasCredited() const { return m_next != m_credited; }
    /// A block and its credit.
    SFreeSlot TakeCredited() { return *--m_next; }

    [[nodiscard]] bool IsFull() const { return m_next == m_end; }
    /// A block whose record was taken out, with its credit.
    void Push(SFreeSlot const& slot) { *m_next++ = slot; }

    /// Allocations and releases that went through.
    void CountAllocation() { m_allocations.Add(1); }
    void CountRelease() { m_releases.Add(1); }
    [[nodiscard]] u64 GetAllocationCount() const { return m_allocations.Get(); }
    [[nodiscard]] u64 GetReleaseCount() const { return m_releases.Get(); }

    // ---- Credits ----

    /// Gives credits to blocks that have none, `most` at most; to how many.
    [[nodiscard]] u32 AddCredits(u32 most)
    {
        u32 const count = static_cast<u32>(std::min<i64>(most, m_credited - m_first));
        m_credited -= count;
        return count;
    }
    /// Takes all credits back; how many they were.
    [[nodiscard]] u32 RemoveCredits()
    {
        u32 const count = static_cast<u32>(m_next - m_credited);
        m_credited = m_next;
        return count;
    }

    // ---- The magazines, where no block has a credit ----

    [[nodiscard]] bool HasSlots() const { return m_first != nullptr; }
    /// Twice `count` slots, which stay the caller's.
    void SetSlots(SFreeSlot* slots, u32 count)
    {
        m_first = m_credited = m_next = slots;
        m_end = slots + count;
        m_spare = slots + count;
    }

    [[nodiscard]] bool IsLoadedEmpty() const { return m_next == m_first; }
    void SwapMagazines()
    {
        i64 const size = m_end - m_first;
        i64 const count = m_next - m_first;
        std::swap(m_first, m_spare);
        m_credited = m_next = m_first + std::exchange(m_spareCount, count);
        m_end = m_first + size;
    }

    /// All slots of the loaded magazine; FillLoaded says how many are taken, from the first on.
    [[nodiscard]] std::span<SFreeSlot> GetSlots() { return {m_first, m_end}; }
    void FillLoaded(u32 count) { m_credited = m_next = m_first + count; }

    [[nodiscard]] std::span<SFreeSlot const> GetLoaded() const { return {m_first, m_next}; }
    [[nodiscard]] std::span<SFreeSlot const> GetSpare() const { return {m_spare, static_cast<u64>(m_spareCount)}; }
    void ClearSpare() { m_spareCount = 0; }

private:
    SFreeSlot* m_credited = nullptr; // blocks from here on have credits
    SFreeSlot* m_next = nullptr;     // behind the last block
    SFreeSlot* m_end = nullptr;
    SFreeSlot* m_first = nullptr;
    SFreeSlot* m_spare = nullptr; // as many slots again
    i64 m_spareCount = 0;         // blocks in them
    CStatisticsCounter m_allocations;
    CStatisticsCounter m_releases;
};

static_assert(sizeof(CLaneClass) == 64);

/// Free blocks that one thread took out of the classes, or freed, with the counters of what went through.
class alignas(64) CHeapLane {
public:
    static constexpr u32 ClassCount = CChunkTag::KindCount * CChunkTag::ClassCount;

    /// By the number that chunk tags have for a kind and block size, too.
    [[nodiscard]] CLaneClass& GetClass(u32 number) { return m_classes[number]; }
    [[nodiscard]] CLaneClass const& GetClass(u32 number) const { return m_classes[number]; }
    [[nodiscard]] CLaneClass& GetClass(SBlockShape const& shape) { return m_classes[GetNumber(shape)]; }

    /// Gives the magazines of a class their slots, twice GetMagazineSize.
    void SetSlots(SBlockShape const& shape, SFreeSlot* slots)
    {
        GetClass(shape).SetSlots(slots, GetMagazineSize(shape.blockBits));
        m_usedClasses.fetch_or(1u << GetNumber(shape), std::memory_order_relaxed);
    }
    /// False when the lane never had a block of the class. Needs no lock: a lane that begins now is like one that takes
    /// blocks a moment after it was looked at.
    [[nodiscard]] bool HasUsed(SBlockShape const& shape) const
    {
        return (m_usedClasses.load(std::memory_order_relaxed) & 1u << GetNumber(shape)) != 0;
    }

    /// All credits, those of blocks as well; the lane has none then, but those of its records.
    [[nodiscard]] u32 TakeCredits()
    {
        u32 count = std::exchange(credits, 0u);
        for (CLaneClass& blocks : m_classes)
            count += blocks.RemoveCredits();
        return count;
    }

    // ---- Records of blocks in chunks: with the lane's lock held ----

    void SetNumber(u32 number) { m_ownMark = m_mark = CBlockRecord::GetMark(number); }
    [[nodiscard]] u32 GetMark() const { return m_mark; }

    /// Of a block that the lane hands out.
    [[nodiscard]] CBlockRecord::Value MakeRecord(u64 size) const { return CBlockRecord::Make(size, m_mark); }
    /// Whether the block is one that the lane handed out, and nobody takes the records of such out but in this lane.
    [[nodiscard]] bool Owns(CBlockRecord::Value record) const { return CBlockRecord::GetMarkOf(record) == m_ownMark; }
    /// From now on others take its blocks' records out, too, without its lock.
    void Share() { m_ownMark = SharedMark; }
    /// Nobody else does any more.
    void Unshare() { m_ownMark = m_mark; }
    [[nodiscard]] bool IsShared() const { return m_ownMark == SharedMark; }

    /// The lane's thread is about to take out a record with this mark, of a shared lane. False when it is time to look
    /// whether its own lane still has to be shared.
    [[nodiscard]] bool CountShared(u32 mark)
    {
        if (m_sharedLeft == 0)
            return false;
        --m_sharedLeft;
        m_marksSeen.store(m_marksSeen.load(std::memory_order_relaxed) | CBlockRecord::GetMarkBit(mark),
                          std::memory_order_relaxed);
        return true;
    }
    [[nodiscard]] bool IsReviewDue() const { return m_sharedLeft == 0; }
    /// The next time comes twice as late, if the lane is shared now.
    void PutOffReview()
    {
        m_sharedLeft = m_nextReview;
        if (IsShared())
            m_nextReview = std::min(LastReview, m_nextReview * 2);
    }
    /// It comes soon.
    void HastenReview() { m_sharedLeft = SoonReview; }
    /// Whether the lane's thread took records with this mark out, of a shared lane, since they were forgotten. May be
    /// asked without the lock, and forgotten, too; the lane's thread may then bring the mark back once.
    [[nodiscard]] bool HasSeen(u32 mark) const
    {
        return (m_marksSeen.load(std::memory_order_relaxed) & CBlockRecord::GetMarkBit(mark)) != 0;
    }
    void Forget(u32 mark) { m_marksSeen.fetch_and(~CBlockRecord::GetMarkBit(mark), std::memory_order_relaxed); }

    /// Another lane's thread came to free a block of this lane's. False when that happens so often that the lane
    /// should be shared instead.
    [[nodiscard]] bool AllowVisit();

    // ---- Records for blocks that are not in chunks: free ones, each with its credit ----

    static constexpr u32 RecordsAtOnce = 32;
    static constexpr u32 MostRecords = 2 * RecordsAtOnce;

    [[nodiscard]] bool HasRecords() const { return m_records != nullptr; }
    [[nodiscard]] SAllocationRecord& PopRecord()
    {
        --m_recordCount;
        return *std::exchange(m_records, m_records->next);
    }
    /// How many there are then.
    [[nodiscard]] u32 PushRecord(SAllocationRecord& record)
    {
        record.next = std::exchange(m_records, &record);
        return ++m_recordCount;
    }

    // ---- What the lane's threads did, to be added to the heap's counters and the pools' ----

    void CountHookBlocks(u64 requests, u64 blocks)
    {
        m_hookRequests.Add(requests);
        m_hookBlocks.Add(blocks);
    }
    void CountReleasedHookBlocks(u64 blocks) { m_releasedHookBlocks.Add(blocks); }
    void AddBytes(u64 size) { m_addedBytes.Add(size); }
    void SubtractBytes(u64 size) { m_subtractedBytes.Add(size); }

    [[nodiscard]] u64 GetHookRequests() const { return m_hookRequests.Get(); }
    [[nodiscard]] u64 GetHookBlocks() const { return m_hookBlocks.Get(); }
    [[nodiscard]] u64 GetReleasedHookBlocks() const { return m_releasedHookBlocks.Get(); }
    [[nodiscard]] u64 GetAddedBytes() const { return m_addedBytes.Get(); }
    [[nodiscard]] u64 GetSubtractedBytes() const { return m_subtractedBytes.Get(); }

    /// The class whose counters those blocks of a pool go to that are none of a lane's.
    [[nodiscard]] CLaneClass& GetLargestClass(EHeap::Type kind)
    {
        return m_classes[CChunkTag::GetNumber(kind, SBlockShape::LargestBits)];
    }

    /// Blocks that a magazine holds: 16 KB of them, 64 at most.
    [[nodiscard]] static constexpr u32 GetMagazineSize(u32 blockBits) { return std::min(64u, 16384u >> blockBits); }

private:
    static constexpr u32 SharedMark = 1; // no lane's
    static constexpr u32 MostVisits = 4; // in hand
    static constexpr u32 FirstReview = 1u << 16;
    static constexpr u32 SoonReview = 1u << 10;
    static constexpr u32 LastReview = 1u << 22; // some 50 milliseconds of nothing else

    CLaneClass m_classes[ClassCount]; // first: an offset less to add on the quick way
    u32 m_mark = 0;
    u32 m_ownMark = 0;               // m_mark, or SharedMark
    std::atomic<u64> m_marksSeen{0}; // bits of those of shared lanes
    u32 m_sharedLeft = FirstReview;  // records of shared lanes until the next review
    u32 m_nextReview = FirstReview;

public:
    CBiasedLock lock;
    u32 credits = 0;     ///< records set aside for no block in particular
    u32 lanesInside = 0; ///< bits of lanes whose threads may still act as if this one were shared, which it is no more

private:
    [[nodiscard]] static u32 GetNumber(SBlockShape const& shape)
    {
        return CChunkTag::GetNumber(shape.kind, shape.blockBits);
    }

    std::atomic<u32> m_usedClasses{0};
    u32 m_visitsLeft = MostVisits;
    u32 m_recordCount = 0;
    u64 m_allocationsSeen = 0; // for visits that they earned
    SAllocationRecord* m_records = nullptr;
    CStatisticsCounter m_hookRequests;
    CStatisticsCounter m_hookBlocks;
    CStatisticsCounter m_releasedHookBlocks;
    CStatisticsCounter m_addedBytes;
    CStatisticsCounter m_subtractedBytes;
};

static_assert(sizeof(CHeapLane) == 256 + CHeapLane::ClassCount * sizeof(CLaneClass));

class CHeapExtension {
public:
    static constexpr u32 LaneBits = CBlockRecord::LaneBits;
    static constexpr u32 LaneCount = 1u << LaneBits;

    struct STaken {
        void* block;     ///< null when there is none to be had
        bool isRecorded; ///< counted and recorded; otherwise the caller has yet to
    };

    /// Null when the hook gives no memory.
    [[nodiscard]] static CHeapExtension* Create(SMemoryHooks const& hooks);
    /// Gives all memory back, its own included.
    void Release(SMemoryHooks const& hooks);

    [[nodiscard]] CRecordTable& GetTable() { return m_table; }

    /// Runs `use(lane)` with the calling thread's lane and its lock held.
    template <class Use>
    void UseLane(Use&& use)
    {
        u32 const threadId = Thread::GetId();
        SEntered const entered = EnterLane(threadId);
        CBiasedGuard const guard(entered.lane.lock, entered.hold, threadId);
        use(entered.lane);
    }

    /// What all lanes counted of blocks of the hooks.
    struct SHookTotals {
        u64 requests = 0;
        u64 liveCount = 0;
        u64 bytesInUse = 0;
    };
    [[nodiscard]] SHookTotals GetHookTotals() const;

    /// The record of a pool block, if it is found this way.
    [[nodiscard, gnu::always_inline]] CChunkMap::SFound Find(void const* block) const
    {
        return m_map.Find(reinterpret_cast<u64>(block));
    }

    /// The same; false when there is none, and `found` is worth nothing.
    [[nodiscard, gnu::always_inline]] bool TryFind(void const* block, CChunkMap::SFound& found) const
    {
        return m_map.TryFind(reinterpret_cast<u64>(block), found);
    }

    /// The records of the chunk in which a block begins at the address; null when no chunk in the map has one there.
    [[nodiscard]] CChunkRecords* FindChunk(void const* block) const
    {
        CChunkMap::SFound const found = Find(block);
        return found.record != nullptr ? &m_map.GetChunk(found) : nullptr;
    }

    /// Takes a record out: the size it said, 0 when there was none. Of several threads that free a block at once, one
    /// finds it.
    [[nodiscard]] u64 TakeRecord(CChunkRecords::Record& record);
    /// Another size for a block that stays where it is; a record that goes meanwhile stays away.
    void SetSize(CChunkRecords::Record& record, u64 size);

    // ---- Blocks ----

    /// The usual case of Take, in a lane that the calling thread owns; false in every other case, and for what is no
    /// pool block. The block still has to be prepared for use. Calls nothing, like TryGiveBack and what they use: a
    /// function that ends with a call for the other cases then keeps nothing on the stack.
    [[nodiscard, gnu::always_inline]] bool TryTake(EHeap::Type kind, u64 size, void*& block)
    {
        if (kind - EHeap::Pool >= CChunkTag::KindCount || size - 1 >= u64{1} << SBlockShape::LargestBits) [[unlikely]]
            return false;
        u32 const threadId = Platform::GetThreadKey();
        CHeapLane& lane = GetLane(threadId);
        if (!lane.lock.TryAcquireAsOwner(threadId)) [[unlikely]]
            return false;
        CLaneClass& blocks = lane.GetClass(ClassNumbers.Find(kind, size));
        if (!blocks.HasCredited()) [[unlikely]] {
            lane.lock.ReleaseAsOwner(threadId);
            return false;
        }
        SFreeSlot const slot = blocks.TakeCredited();
        Record(lane, blocks, slot, size);
        lane.lock.ReleaseAsOwner(threadId);
        block = slot.block;
        return true;
    }

    /// The usual case of TakeRecord and GiveBack, likewise; false, and nothing done, in every other case, and for a
    /// block that has no record.
    /// \param prepare  makes the block of `size` bytes ready for its slot: prepare(size), under the lane's lock
    template <class Prepare>
    [[nodiscard, gnu::always_inline]] bool TryGiveBack(CChunkMap::SFound const& found, Prepare&& prepare)
    {
        u32 const threadId = Platform::GetThreadKey();
        CHeapLane& lane = GetLane(threadId);
        if (!lane.lock.TryAcquireAsOwner(threadId)) [[unlikely]]
            return false;
        CLaneClass& blocks = lane.GetClass(found.tag.GetNumber());
        CBlockRecord::Value record = 0;
        if (blocks.IsFull() || !TryTakeRecord(lane, *found.record, record)) [[unlikely]] {
            lane.lock.ReleaseAsOwner(threadId);
            return false;
        }
        blocks.Push({prepare(CBlockRecord::GetSize(record)), found.record});
        blocks.CountRelease();
        lane.lock.ReleaseAsOwner(threadId);
        return true;
    }

    /// A block for `size` bytes, recorded and counted in the calling thread's lane where its chunk is in the map.
    /// \param credit  of the caller; the lane has it afterwards if nothing else keeps the record store from growing.
    [[nodiscard]] STaken Take(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, u64 size,
                              ECredit& credit);

    /// Takes back a block whose record has been taken out, with its credit if that is still in hand.
    void GiveBack(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, SFreeSlot const& slot,
                  ECredit credit);

    /// A record was taken out whose block stays where it is, counted as live.
    void GiveBackCredit();

    /// Gives all lanes' blocks of the class back to it. True when there were any.
    bool Drain(CBlockClass& blocks, SBlockShape const& shape);

    struct SCollected {
        u64 credits;
        SAllocationRecord* records; ///< a list; each with another credit
    };
    /// Takes all lanes' credits and records away. Under the collecting lock and no other.
    [[nodiscard]] SCollected CollectCredits();
    [[nodiscard]] CSpinLock& GetCollectingLock() { return m_collecting; }

    /// Around a copy of the process: nobody else has credits in hand, nor is in a lane.
    void AcquireLanes();
    void ReleaseLanes(EFork moment);

    [[nodiscard]] u64 GetAllocationCount(EHeap::Type kind) const;
    [[nodiscard]] u64 GetLiveCount(EHeap::Type kind) const;

    /// The class's chunks with free blocks. Under the class lock.
    [[nodiscard]] CFreeChunks& GetFreeChunks(SBlockShape const& shape)
    {
        return m_freeChunks[CChunkTag::GetNumber(shape.kind, shape.blockBits)];
    }

    // ---- Notes: under the heap lock ----

    /// Memory that stays until the end, at a multiple of 64; null when the hook gives none.
    [[nodiscard]] void* AllocateNotes(SMemoryHooks const& hooks, u64 byteCount);

    // ---- Chunks: under the heap lock ----

    /// Puts a chunk into the map, if it is not there. Without memory for it, its blocks go on with ordinary records.
    /// \param home  the lane that takes blocks from it first
    void AddChunk(SMemoryHooks const& hooks, void const* start, u32 blockCount, SBlockShape const& shape, u32 home);
    void RemoveChunk(void const* start);
    /// Records of chunks removed before may be used for other ones from now on. Called at the start of a purge: by then
    /// nobody looks at them any more, not even for an address that was freed twice.
    void ReuseRemoved();

private:
    static_assert(LaneCount == CFreeChunks::HomeCount);
    static constexpr u32 CreditsAtOnce = 64;
    static constexpr u32 MostCredits = 2 * CreditsAtOnce; // in a lane, but for those of blocks
    static constexpr u64 SlabSize = 16384;
    static constexpr u32 NoLane = LaneCount; // the number of that of the threads that have none yet

    struct SSlab {
        SSlab* next;
    };

    CHeapExtension();

    // Of the threads with the same place: the empty one until one of them has asked for a lane.
    [[nodiscard]] CHeapLane& GetLane(u32 threadId)
    {
        return m_lanes[m_places[Impl::GetThreadPlace(threadId)].load(std::memory_order_relaxed)];
    }
    void SetLane(u32 threadId, u32 number)
    {
        m_places[Impl::GetThreadPlace(threadId)].store(static_cast<u8>(number), std::memory_order_relaxed);
    }
    template <class Suits>
    [[nodiscard]] bool MoveToLane(u32 threadId, u32 first, u32 stride, Suits&& suits);

    /// The calling thread's lane, with its lock held.
    struct SEntered {
        CHeapLane& lane;
        EBiasedHold hold;
    };
    [[nodiscard]] SEntered EnterLane(u32 threadId);
    [[nodiscard]] EBiasedHold EnterAgain(CHeapLane& lane, u32 threadId);

    [[nodiscard]] u32 GetHome(CHeapLane const& lane) const { return static_cast<u32>(&lane - m_lanes); }

    // Records and counts a block that is about to be handed out, with its credit.
    static void Record(CHeapLane const& lane, CLaneClass& blocks, SFreeSlot const& slot, u64 size)
    {
        slot.record->store(lane.MakeRecord(size), std::memory_order_relaxed);
        blocks.CountAllocation();
    }

    // With the lock of the calling thread's lane held.
    [[nodiscard, gnu::always_inline]] bool TryTakeRecord(CHeapLane& lane, CChunkRecords::Record& record,
                                                         CBlockRecord::Value& taken) const
    {
        return Impl::TryTakeRecord(
            record, taken, [&](CBlockRecord::Value seen) { return lane.Owns(seen); },
            [&](CBlockRecord::Value seen) __attribute__((always_inline)) { // a call would make all of Free dearer
                u32 const mark = CBlockRecord::GetMarkOf(seen);
                return (mark == lane.GetMark() || IsShared(mark)) && lane.CountShared(mark);
            });
    }
    [[nodiscard]] bool IsShared(u32 mark) const
    {
        return (m_sharedMarks.load(std::memory_order_acquire) & CBlockRecord::GetMarkBit(mark)) != 0;
    }
    [[nodiscard]] bool VisitLane(CHeapLane& lane, CChunkRecords::Record& record, CBlockRecord::Value& taken);
    void ReviewSharing(CHeapLane& lane);
    [[nodiscard]] bool ForgetVisits(CHeapLane const& lane);

    // All lanes' classes of a kind.
    template <class Visit>
    void VisitLaneClasses(EHeap::Type kind, Visit&& visit) const
    {
        u32 const first = CChunkTag::GetNumber(kind, SBlockShape::SmallestBits);
        for (CHeapLane const& lane : m_lanes)
            for (u32 index = 0; index < CChunkTag::ClassCount; ++index)
                visit(lane.GetClass(first + index));
    }

    [[nodiscard]] SFreeSlot TakeSlowly(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape,
                                       CHeapLane& lane, EBiasedHold& hold, ECredit& credit);
    [[nodiscard]] bool MakeCredit(CGlobalHeap& heap, SBlockShape const& shape, CHeapLane& lane, EBiasedHold& hold,
                                  ECredit& credit);
    [[nodiscard]] SFreeSlot TakeFromLane(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape,
                                         CHeapLane& lane);
    static void ReturnCredits(CGlobalHeap& heap, CHeapLane& lane);
    [[nodiscard]] static bool MakeSlots(CGlobalHeap& heap, CHeapLane& lane, SBlockShape const& shape);
    [[nodiscard]] void* AllocateRecords(SMemoryHooks const& hooks, u32 blockBits, u64 byteCount);

    CHeapLane m_lanes[LaneCount + 1]; // first, for the same reason; the last one stays empty
    CRecordTable m_table;
    void* m_memory = nullptr; // of this object, as the hook gave it
    SSlab* m_slabs = nullptr;
    u64 m_slabUsed = SlabSize;
    CChunkRecords* m_unused[CChunkTag::ClassCount] = {};  // by block size, ready for another chunk
    CChunkRecords* m_removed[CChunkTag::ClassCount] = {}; // ready after the next purge
    CChunkMap m_map;
    CFreeChunks m_freeChunks[CHeapLane::ClassCount];
    std::atomic<u64> m_sharedMarks{0}; // bits of lanes that are shared
    CSpinLock m_collecting;            // one thread at a time has lanes' credits in its hands
    alignas(64) std::atomic<u8> m_places[1u << Impl::ThreadPlaceBits]; // the numbers of threads' lanes
};

} // namespace Velmor
