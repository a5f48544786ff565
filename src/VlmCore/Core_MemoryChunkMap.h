// From the address of a pool block to its record, without a lock and without a search: how blocks are known once a heap
// has outgrown its own record table.
//
// The blocks of a chunk are alike, so that two bytes each are record enough: the size that was asked for. They lie side
// by side in the chunk's CChunkRecords, which a radix tree over the address space leads to. A look-up reads four cache
// lines that neighbouring blocks share.
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <atomic>
#include <bit>

namespace Velmor {

struct SMemoryHooks;

/// The records of one chunk's blocks. Any thread may look at them; a block's own record is changed by whoever owns it.
class CChunkRecords {
public:
    /// 0 while the block is not recorded, else the size that was asked for, up to 1,024.
    using Record = std::atomic<u16>;

    [[nodiscard]] static constexpr u64 GetByteCount(u32 blockCount)
    {
        return sizeof(CChunkRecords) + blockCount * sizeof(Record);
    }

    /// In memory of GetByteCount bytes.
    CChunkRecords(void const* start, u32 blockBits, u32 blockCount, EHeap::Type kind)
        : m_start(reinterpret_cast<u64>(start)), m_blockCount(static_cast<u16>(blockCount)),
          m_blockBits(static_cast<u8>(blockBits)), m_kind(static_cast<u8>(kind))
    {
        for (u32 index = 0; index < blockCount; ++index)
            ::new (GetRecords() + index) Record(0);
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

    CChunkRecords* next = nullptr; ///< among those that wait for another chunk

private:
    [[nodiscard]] Record* GetRecords() { return reinterpret_cast<Record*>(this + 1); }

    u64 m_start;
    u16 m_blockCount;
    u8 m_blockBits;
    u8 m_kind;
};

static_assert(sizeof(CChunkRecords) == 24);
static_assert(CChunkRecords::Record::is_always_lock_free && sizeof(CChunkRecords::Record) == 2);

/// The radix tree. Looking up needs no lock; adding and removing need one of the caller's.
class CChunkMap {
public:
    /// Smaller chunks cannot be added: at most one may begin inside a granule, and one more reach into it.
    static constexpr u64 SmallestChunk = 2048;

    CChunkMap() = default;
    CChunkMap(CChunkMap const&) = delete;
    CChunkMap& operator=(CChunkMap const&) = delete;
    ~CChunkMap() = default;

    /// The records of the chunk that holds the address, if it is in the map. The address may be any.
    [[nodiscard]] CChunkRecords* FindChunk(u64 address) const
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
        CChunkRecords* const inside = granule.inside.load(std::memory_order_acquire);
        if (inside != nullptr && address >= inside->GetStart())
            return inside;
        return granule.across.load(std::memory_order_acquire);
    }

    /// The record of the block that begins at the address; null when no chunk in the map has one there.
    [[nodiscard]] CChunkRecords::Record* FindRecord(u64 address) const
    {
        CChunkRecords* const chunk = FindChunk(address);
        return chunk != nullptr ? chunk->Find(address) : nullptr;
    }

    /// False when the hooks refuse the memory for a part of the tree, or the address is beyond what a program gets; the
    /// map is as before then.
    [[nodiscard]] bool Add(SMemoryHooks const& hooks, CChunkRecords* chunk);

    void Remove(CChunkRecords const* chunk);

    /// Gives the tree's memory back; the map is empty.
    void Release(SMemoryHooks const& hooks);

private:
    static constexpr u32 GranuleBits = 11;
    static constexpr u32 LevelBits = 12;
    static constexpr u32 LeafShift = GranuleBits + LevelBits;
    static constexpr u32 BranchShift = LeafShift + LevelBits;
    static constexpr u32 AddressBits = BranchShift + LevelBits;
    static constexpr u64 LevelSize = u64{1} << LevelBits;
    static constexpr u64 LevelMask = LevelSize - 1;

    struct SGranule {
        std::atomic<CChunkRecords*> across; // the chunk that holds the granule's first byte
        std::atomic<CChunkRecords*> inside; // the chunk that begins behind it
    };
    struct SLeaf {
        SGranule granules[LevelSize];
    };
    struct SBranch {
        std::atomic<SLeaf*> leaves[LevelSize];
    };

    [[nodiscard]] SGranule* MakeGranule(SMemoryHooks const& hooks, u64 number);
    [[nodiscard]] SGranule* FindGranule(u64 number) const;
    [[nodiscard]] std::atomic<CChunkRecords*>& GetSlot(SGranule& granule, u64 number, CChunkRecords const* chunk) const
    {
        return chunk->GetStart() > number << GranuleBits ? granule.inside : granule.across;
    }

    std::atomic<SBranch*> m_branches[LevelSize] = {};
};

} // namespace Velmor
