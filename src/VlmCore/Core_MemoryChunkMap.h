// From the address of a pool block to its record, without a lock and without a search: how blocks are known once a heap
// has outgrown its own record table.
//
// The blocks of a chunk are alike, so that two bytes each are record enough: the size that was asked for. They lie side
// by side in the chunk's CChunkRecords, which a radix tree over the address space leads to. A look-up reads four cache
// lines that neighbouring blocks share.
//
//     CChunkRecords | start, counts, ... | a record per block | a bit per block: free in its class |
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <atomic>
#include <bit>

namespace Velmor {

struct SMemoryHooks;

/// The records of one chunk's blocks. Any thread may look at them; a block's own record is changed by whoever owns it.
/// What concerns free blocks is for the holder of the class lock.
class CChunkRecords {
public:
    /// 0 while the block is not recorded, else the size that was asked for, up to 1,024.
    using Record = std::atomic<u16>;

    [[nodiscard]] static constexpr u64 GetByteCount(u32 blockCount)
    {
        return GetFreeBitsOffset(blockCount) + GetWordCount(blockCount) * sizeof(u64);
    }

    /// In memory of GetByteCount bytes.
    CChunkRecords(void const* start, u32 blockBits, u32 blockCount, EHeap::Type kind)
        : m_start(reinterpret_cast<u64>(start)), m_blockCount(static_cast<u16>(blockCount)),
          m_blockBits(static_cast<u8>(blockBits)), m_kind(static_cast<u8>(kind))
    {
        for (u32 index = 0; index < blockCount; ++index)
            ::new (GetRecords() + index) Record(0);
        for (u32 word = 0; word < GetWordCount(blockCount); ++word)
            ::new (GetFreeBits() + word) u64(0);
    }

    /// The block's record; null for an address at which no block of the chunk begins.
    [[nodiscard]] Record* Find(u64 address)
    {
        // Bits below the block size come out on top and make the index too large.
        u64 const index = std::rotr(address - m_start, m_blockBits);
        return index < m_blockCount ? GetRecords() + index : nullptr;
    }

    [[nodiscard]] u64 GetStart() const { return m_start; }
    [[nodiscard]] u64 GetEnd() const { return m_start + (u64{m_blockCount} << m_blockBits); }
    [[nodiscard]] u32 GetBlockBits() const { return m_blockBits; }
    [[nodiscard]] EHeap::Type GetKind() const { return static_cast<EHeap::Type>(m_kind); }

    // ---- Free blocks: under the class lock ----

    [[nodiscard]] u32 GetFreeCount() const { return m_freeCount; }
    [[nodiscard]] bool IsWhollyFree() const { return m_freeCount == m_blockCount; }

    /// The block at the address, one of the chunk's, is free from now on.
    void SetFree(u64 address)
    {
        u64 const index = (address - m_start) >> m_blockBits;
        GetFreeBits()[index / 64] |= u64{1} << index % 64;
        ++m_freeCount;
    }

    /// Takes up to `wanted` free blocks and runs `visit(address)` for each, lowest address first; how many.
    template <class Visit>
    u32 TakeFree(u32 wanted, Visit&& visit)
    {
        u32 taken = 0;
        for (u32 word = 0; taken < wanted && m_freeCount != 0; ++word)
            for (u64& bits = GetFreeBits()[word]; bits != 0 && taken < wanted; bits &= bits - 1) {
                u64 const index = word * 64 + static_cast<u32>(std::countr_zero(bits));
                visit(m_start + (index << m_blockBits));
                --m_freeCount;
                ++taken;
            }
        return taken;
    }

    CChunkRecords* next = nullptr; ///< in a CFreeChunks, never null there, or among those that wait for another chunk

private:
    [[nodiscard]] static constexpr u32 GetWordCount(u32 blockCount) { return (blockCount + 63) / 64; }
    [[nodiscard]] static constexpr u64 GetFreeBitsOffset(u32 blockCount);
    [[nodiscard]] Record* GetRecords() { return reinterpret_cast<Record*>(this + 1); }
    [[nodiscard]] u64* GetFreeBits()
    {
        return reinterpret_cast<u64*>(reinterpret_cast<u8*>(this) + GetFreeBitsOffset(m_blockCount));
    }

    u64 m_start;
    u16 m_blockCount;
    u16 m_freeCount = 0;
    u8 m_blockBits;
    u8 m_kind;
};

constexpr u64 CChunkRecords::GetFreeBitsOffset(u32 blockCount)
{
    return sizeof(CChunkRecords) + (blockCount * sizeof(Record) + sizeof(u64) - 1) / sizeof(u64) * sizeof(u64);
}

/// The chunks of a class that have free blocks, first come, first served: a chunk whose turn comes late has gathered
/// free blocks meanwhile, and what is allocated together then lies together, whatever the order of the releases was.
/// Under the class lock.
class CFreeChunks {
public:
    [[nodiscard]] bool IsEmpty() const { return m_last == nullptr; }

    void Add(CChunkRecords& chunk, u64 address)
    {
        chunk.SetFree(address);
        if (chunk.next == nullptr)
            Append(chunk);
    }

    /// Takes up to `wanted` blocks and runs `visit(address)` for each.
    template <class Visit>
    void Take(u32 wanted, Visit&& visit)
    {
        while (wanted != 0 && m_last != nullptr) {
            CChunkRecords& chunk = *m_last->next;
            wanted -= chunk.TakeFree(wanted, visit);
            if (chunk.GetFreeCount() == 0)
                RemoveFirst();
        }
    }

    /// Leaves the chunks out of which every block is free: they are about to go.
    void RemoveWhollyFree();
    void Clear() { m_last = nullptr; }

private:
    void Append(CChunkRecords& chunk)
    {
        chunk.next = m_last != nullptr ? m_last->next : &chunk;
        if (m_last != nullptr)
            m_last->next = &chunk;
        m_last = &chunk;
    }
    CChunkRecords& RemoveFirst()
    {
        CChunkRecords& first = *m_last->next;
        m_last->next = first.next;
        if (m_last == &first)
            m_last = nullptr;
        first.next = nullptr;
        return first;
    }

    CChunkRecords* m_last = nullptr; // its next one is the first
};

static_assert(sizeof(CChunkRecords) == 24);
static_assert(CChunkRecords::Record::is_always_lock_free && sizeof(CChunkRecords::Record) == 2);

/// One radix tree. Looking up needs no lock; adding and removing need one of the caller's.
/// \tparam GranuleBits  base-2 logarithm of the bytes that one entry stands for.
template <u32 GranuleBits>
class TChunkTree {
public:
    /// Smaller chunks cannot be added: at most one may begin inside a granule, and one more reach into it.
    static constexpr u64 SmallestChunk = u64{1} << GranuleBits;

    TChunkTree() = default;
    TChunkTree(TChunkTree const&) = delete;
    TChunkTree& operator=(TChunkTree const&) = delete;
    ~TChunkTree() = default;

    /// The only chunk of the tree that may hold the address, which may be any; null when there is none.
    [[nodiscard]] CChunkRecords* Find(u64 address) const
    {
        if (address >> AddressBits != 0) [[unlikely]]
            return nullptr;
        SBranch const* const branch = m_branches[address >> BranchShift].load(std::memory_order_acquire);
        if (branch == nullptr)
            return nullptr;
        SLeaf const* const leaf = branch->leaves[(address >> LeafShift) & LevelMask].load(std::memory_order_acquire);
        if (leaf == nullptr)
            return nullptr;
        SGranule const& granule = leaf->granules[(address >> GranuleBits) & LevelMask];
        u64 const inside = granule.inside.load(std::memory_order_acquire);
        u64 const across = granule.across.load(std::memory_order_acquire);
        u64 const entry = (address & (SmallestChunk - 1)) >= inside >> AddressBits ? inside : across;
        return reinterpret_cast<CChunkRecords*>(entry & AddressMask);
    }

    /// False when the hooks refuse the memory for a part of the tree, or the address is beyond what a program gets; the
    /// tree holds what it held then.
    [[nodiscard]] bool Add(SMemoryHooks const& hooks, CChunkRecords* chunk);

    void Remove(CChunkRecords const* chunk);

    /// Gives the tree's memory back; it is empty.
    void Release(SMemoryHooks const& hooks);

private:
    static constexpr u32 AddressBits = 47;
    static constexpr u32 LevelBits = (AddressBits - GranuleBits) / 3;
    static constexpr u32 LeafShift = GranuleBits + LevelBits;
    static constexpr u32 BranchShift = LeafShift + LevelBits;
    static constexpr u64 LevelSize = u64{1} << LevelBits;
    static constexpr u64 LevelMask = LevelSize - 1;
    static_assert(BranchShift + LevelBits == AddressBits && GranuleBits < 64 - AddressBits);

    static constexpr u64 AddressMask = (u64{1} << AddressBits) - 1;
    static constexpr u64 NoneInside = ~AddressMask; // begins behind everything

    // An entry is the address of a chunk's records and, above it, how far behind the granule's first byte the chunk
    // begins: the look-up of one chunk reads nothing of another.
    struct SGranule {
        std::atomic<u64> across{0};          // the chunk that holds the granule's first byte
        std::atomic<u64> inside{NoneInside}; // the chunk that begins behind it; NoneInside without one
    };

    struct SLeaf {
        SGranule granules[LevelSize];
    };
    struct SBranch {
        std::atomic<SLeaf*> leaves[LevelSize] = {};
    };

    [[nodiscard]] SGranule* MakeGranule(SMemoryHooks const& hooks, u64 number);
    [[nodiscard]] SGranule& GetGranule(u64 number) const;
    void SetEntry(CChunkRecords const* chunk, u64 number, bool isPresent);

    std::atomic<SBranch*> m_branches[LevelSize] = {};
};

/// All chunks: those of 16 KB and more, the usual ones, in a tree that is small enough for the cache, smaller ones in
/// another.
class CChunkMap {
public:
    struct SFound {
        CChunkRecords::Record* record = nullptr; ///< null when no chunk in the map has a block at the address
        CChunkRecords* chunk = nullptr;
    };

    /// The record of the block that begins at the address, which may be any.
    [[nodiscard, gnu::always_inline]] SFound Find(u64 address) const
    {
        if (CChunkRecords* const chunk = m_large.Find(address))
            if (CChunkRecords::Record* const record = chunk->Find(address)) [[likely]]
                return {record, chunk};
        return FindSmall(address);
    }

    /// False, and the map as before, when the chunk cannot be added: smaller than 2 KB, or no memory for the map.
    [[nodiscard]] bool Add(SMemoryHooks const& hooks, CChunkRecords* chunk)
    {
        return IsLarge(chunk) ? m_large.Add(hooks, chunk) : m_small.Add(hooks, chunk);
    }
    void Remove(CChunkRecords const* chunk)
    {
        if (IsLarge(chunk))
            m_large.Remove(chunk);
        else
            m_small.Remove(chunk);
    }
    void Release(SMemoryHooks const& hooks)
    {
        m_large.Release(hooks);
        m_small.Release(hooks);
    }

private:
    using LargeTree = TChunkTree<14>;
    using SmallTree = TChunkTree<11>;

    [[nodiscard]] SFound FindSmall(u64 address) const;
    [[nodiscard]] static bool IsLarge(CChunkRecords const* chunk)
    {
        return chunk->GetEnd() - chunk->GetStart() >= LargeTree::SmallestChunk;
    }

    LargeTree m_large;
    SmallTree m_small;
};

} // namespace Velmor
