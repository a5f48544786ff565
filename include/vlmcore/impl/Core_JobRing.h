/// \file
/// The lock-free ring through which a thread pool's jobs pass, and the two questions about it that a pool must get
/// right.
#pragma once

#include <vlmcore/types.h>

#include <atomic>

namespace Velmor::Impl {

/// Ring of `SlotCount` slots between any number of producers and consumers; one slot stays free.
///
/// Three indices count slots, and never wrap: a slot is an index modulo the slot count. Wrapping indices would let a
/// thread that slept for exactly one round claim a slot in the belief that nothing had happened.
///
///     read  <=  publish  <=  reserve  <=  read + SlotCount - 1
///
/// - A producer claims the slot at `reserve`, fills it, and moves `publish` on when all earlier slots are published.
/// - A consumer looks into the slot at `read`, and owns what it saw when it gets to move `read` on.
///
/// \tparam Atomic  std::atomic, or the model check's stand-in.
/// \tparam Item    what passes through; copied without synchronisation of its own.
template <template <class> class Atomic, class Item, u64 SlotCount>
class TJobRing {
    static_assert((SlotCount & (SlotCount - 1)) == 0, "the slot of an index is found with a mask");

public:
    /// Most items that wait at once.
    static constexpr u64 Capacity = SlotCount - 1;

    /// Claims a slot, which the caller must Publish; false when the ring is full. From a claim on the ring is not
    /// empty.
    bool TryClaim(u64& index)
    {
        index = m_reserve.load(std::memory_order_relaxed);
        do {
            if (!HasRoom(index))
                return false;
        } while (
            !m_reserve.compare_exchange_weak(index, index + 1, std::memory_order_seq_cst, std::memory_order_relaxed));
        return true;
    }

    /// Fills a claimed slot and shows it to the consumers, after all slots that were claimed before it. Calls `wait`
    /// while one of those is still due.
    template <class Wait>
    void Publish(u64 index, Item item, Wait&& wait)
    {
        m_slots[index % SlotCount].store(item, std::memory_order_relaxed);
        while (m_publish.load(std::memory_order_acquire) != index)
            wait();
        m_publish.store(index + 1, std::memory_order_release); // nobody else may move it from `index`
    }

    /// Publishes the slots before a claimed one as empty: whoever claimed them is gone for good, and only the caller is
    /// left.
    void PublishForTheGone(u64 index)
    {
        u64 missing = m_publish.load(std::memory_order_acquire);
        for (; missing != index; ++missing)
            m_slots[missing % SlotCount].store(Item{}, std::memory_order_relaxed);
        m_publish.store(index, std::memory_order_release);
    }

    /// Forgets all items and all claims. Alone: nobody is at work on the ring, nor ever comes back to it.
    void Clear()
    {
        u64 const reserved = m_reserve.load(std::memory_order_relaxed);
        m_read.store(reserved, std::memory_order_relaxed);
        m_publish.store(reserved, std::memory_order_release);
    }

    /// Takes the oldest published item; false when there is none.
    bool TryTake(Item& item)
    {
        u64 index = m_read.load(std::memory_order_acquire);
        do {
            if (!IsPublished(index))
                return false;
            // Before the claim: afterwards the slot may be a producer's again.
            item = m_slots[index % SlotCount].load(std::memory_order_relaxed);
        } while (!m_read.compare_exchange_weak(index, index + 1, std::memory_order_acq_rel, std::memory_order_acquire));
        return true;
    }

    /// True when TryTake would have found something.
    [[nodiscard]] bool HasPublished() { return IsPublished(m_read.load(std::memory_order_acquire)); }

    /// Slots claimed so far.
    [[nodiscard]] u64 GetReserved() const { return m_reserve.load(std::memory_order_seq_cst); }
    /// Items taken so far.
    [[nodiscard]] u64 GetTaken() const { return m_read.load(std::memory_order_acquire); }
    /// True when every claimed slot has been taken from.
    [[nodiscard]] bool IsEmpty() const { return GetTaken() == GetReserved(); }

private:
    static constexpr u64 CacheLine = 64;

    // Each side keeps a copy of the other side's index and looks at the index itself only when the copy says that
    // there is nothing to do: the two sides then rarely pull a cache line from each other. Copies only ever lag behind,
    // which errs to the safe side. Differences are taken as signed: a thread's own index may lag, too.

    bool HasRoom(u64 index)
    {
        if (static_cast<i64>(index - m_readSeen.load(std::memory_order_acquire)) < static_cast<i64>(Capacity))
            return true;
        u64 const read = m_read.load(std::memory_order_acquire);
        m_readSeen.store(read, std::memory_order_release);
        return static_cast<i64>(index - read) < static_cast<i64>(Capacity);
    }

    bool IsPublished(u64 index)
    {
        if (static_cast<i64>(m_publishSeen.load(std::memory_order_acquire) - index) > 0)
            return true;
        u64 const publish = m_publish.load(std::memory_order_acquire);
        m_publishSeen.store(publish, std::memory_order_release);
        return static_cast<i64>(publish - index) > 0;
    }

    Atomic<Item> m_slots[SlotCount]{};
    // Gaps instead of alignment: a pool must be able to live in any block of the memory manager.
    u8 m_gap0[CacheLine]{};
    Atomic<u64> m_reserve{0};
    Atomic<u64> m_readSeen{0};
    u8 m_gap1[CacheLine]{};
    Atomic<u64> m_read{0};
    Atomic<u64> m_publishSeen{0};
    u8 m_gap2[CacheLine]{};
    Atomic<u64> m_publish{0};
    u8 m_gap3[CacheLine]{};
};

/// Lowers the number of running workers by one unless something waits in the ring; true when lowered. Alone among
/// workers (under the pool's lock), not among producers: a producer that claimed a slot and then finds a worker running
/// can rely on it, because either that worker sees the claim here or the producer sees the lowered number.
template <class Ring, class Word>
bool TryLeave(Ring const& ring, Word& running)
{
    if (!ring.IsEmpty())
        return false;
    u32 const count = running.load(std::memory_order_relaxed);
    running.store(count - 1, std::memory_order_seq_cst);
    if (ring.IsEmpty())
        return true;
    running.store(count, std::memory_order_seq_cst);
    return false;
}

/// True when at some moment of the call no item was waiting and no worker busy. A worker is busy from before it takes
/// an item to the end of what it does with it, so that an idle one seen first can only have become busy through an
/// item that was claimed after the first look at the ring: the second look finds that.
template <class Ring, class IsAnyBusy>
bool IsDrained(Ring const& ring, IsAnyBusy&& isAnyBusy)
{
    u64 const reserved = ring.GetReserved();
    return ring.GetTaken() == reserved && !isAnyBusy() && ring.GetReserved() == reserved;
}

} // namespace Velmor::Impl
