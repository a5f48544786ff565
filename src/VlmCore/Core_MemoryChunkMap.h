// From the address of a pool block to its record, without a lock and without a search: how blocks are known once a heap
// has outgrown its own record table.
//
// The blocks of a chunk are alike, so that two bytes each are record enough: the size that was asked for, and which
// lane handed the block out. They lie side by side in the chunk's CChunkRecords, which a radix tree over the address
// space leads to:
//
//     ... | a record per block | CChunkRecords | a bit per block: free in its class | ...
//
// The tree's entry tells where the records are, where the chunk begins and how large its blocks are, so that a look-up
// reads the tree and the record, and nothing in between.
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <atomic>
#include <bit>

namespace Velmor {

struct SMemoryHooks;

/// What the record of a pool block says, in 16 bits: the size that was asked for, 1 to 1,024, and above it the lane
/// that handed the block out. 0 for a block that is not recorded.
class CBlockRecord {
public:
    using Value = u16;

    static constexpr u32 LaneBits = 5;

    /// What the records of a lane's blocks have in common; no other lane's have it, nor 0.
    [[nodiscard]] static constexpr u32 GetMark(u32 lane) { return (lane + 1) << SizeBits; }
    [[nodiscard]] static constexpr u32 GetMarkOf(Value record) { return record & ~SizeMask; }
    /// The mark's place in a word with a bit for each; that of 0 is bit 0, which no lane has.
    [[nodiscard]] static constexpr u64 GetMarkBit(u32 mark) { return u64{1} << (mark >> SizeBits); }

    [[nodiscard]] static constexpr Value Make(u64 size, u32 mark) { return static_cast<Value>((size - 1) | mark); }
    /// Of a block that is recorded.
    [[nodiscard]] static constexpr u64 GetSize(Value record) { return (record & SizeMask) + 1; }
    [[nodiscard]] static constexpr u32 GetLane(Value record) { return (u32{record} >> SizeBits) - 1; }

private:
    static constexpr u32 SizeBits = 10;
    static constexpr u32 SizeMask = (1u << SizeBits) - 1;
    static_assert(((u64{1} << LaneBits) << SizeBits) + SizeMask <= Value(~0));
};

/// The records of one chunk's blocks. Any thread may look at them; a block's own record is changed by whoever owns it.
/// What concerns free blocks is for the holder of the class lock.
class CChunkRecords {
public:
    using Record = std::atomic<CBlockRecord::Value>;

    /// The records begin at a multiple of it.
    static constexpr u64 Alignment = 64;

    [[nodiscard]] static constexpr u64 GetByteCount(u32 blockCount)
    {
        return GetRecordBytes(blockCount) + sizeof(CChunkRecords) + GetWordCount(blockCount) * sizeof(u64);
    }

    /// In memory of GetByteCount bytes, suitably aligned.
    [[nodiscard]] static CChunkRecords* Create(void* memory, void const* start, u32 blockBits, u32 blockCount,
                                               EHeap::Type kind)
    {
        return ::new (static_cast<u8*>(memory) + GetRecordBytes(blockCount))
            CChunkRecords(start, blockBits, blockCount, kind);
    }
    /// Those whose records begin at the address.
    [[nodiscard]] static CChunkRecords* FromRecords(Record* records, u32 blockCount)
    {
        return reinterpret_cast<CChunkRecords*>(reinterpret_cast<u8*>(records) + GetRecordBytes(blockCount));
    }

    [[nodiscard]] Record* GetRecords()
    {
        return reinterpret_cast<Record*>(reinterpret_cast<u8*>(this) - GetRecordBytes(m_blockCount));
    }
    [[nodiscard]] u64 GetStart() const { return m_start; }
    [[nodiscard]] u64 GetEnd() const { return m_start + (u64{m_blockCount} << m_blockBits); }
    [[nodiscard]] u32 GetBlockBits() const { return m_blockBits; }
    [[nodiscard]] u32 GetBlockCount() const { return m_blockCount; }
    [[nodiscard]] EHeap::Type GetKind() const { return static_cast<EHeap::Type>(m_kind); }

    // ---- Free blocks: under the class lock ----

    /// Whose free blocks these are first of all: one of CFreeChunks' homes.
    [[nodiscard]] u32 GetHome() const { return m_home; }
    void SetHome(u32 home) { m_home = static_cast<u8>(home); }

    [[nodiscard]] u32 GetFreeCount() const { return m_freeCount; }
    [[nodiscard]] bool IsWhollyFree() const { return m_freeCount == m_blockCount; }

    /// The block at the address, one of the chunk's, is free from now on.
    void SetFree(u64 address)
    {
        u64 const index = (address - m_start) >> m_blockBits;
        GetFreeBits()[index / 64] |= u64{1} << index % 64;
        ++m_freeCount;
    }

    /// Takes up to `wanted` free blocks and runs `visit(address, record)` for each, lowest address first; how many.
    template <class Visit>
    u32 TakeFree(u32 wanted, Visit&& visit)
    {
        u32 taken = 0;
        for (u32 word = 0; taken < wanted && m_freeCount != 0; ++word)
            for (u64& bits = GetFreeBits()[word]; bits != 0 && taken < wanted; bits &= bits - 1) {
                u64 const index = word * 64 + static_cast<u32>(std::countr_zero(bits));
                visit(m_start + (index << m_blockBits), GetRecords() + index);
                --m_freeCount;
                ++taken;
            }
        return taken;
    }

    CChunkRecords* next = nullptr; ///< in a CFreeChunks, never null there, or among those that wait for another chunk

private:
    CChunkRecords(void const* start, u32 blockBits, u32 blockCount, EHeap::Type kind)
        : m_start(reinterpret_cast<u64>(start)), m_blockCount(static_cast<u16>(blockCount)),
          m_blockBits(static_cast<u8>(blockBits)), m_kind(static_cast<u8>(kind))
    {
        for (u32 index = 0; index < blockCount; ++index)
            ::new (GetRecords() + index) Record(0);
        for (u32 word = 0; word < GetWordCount(blockCount); ++word)
            ::new (GetFreeBits() + word) u64(0);
    }

    [[nodiscard]] static constexpr u64 GetRecordBytes(u32 blockCount)
    {
        return (blockCount * sizeof(Record) + sizeof(u64) - 1) / sizeof(u64) * sizeof(u64);
    }
    [[nodiscard]] static constexpr u32 GetWordCount(u32 blockCount) { return (blockCount + 63) / 64; }
    [[nodiscard]] u64* GetFreeBits() { return reinterpret_cast<u64*>(this + 1); }

    u64 m_start;
    u16 m_blockCount;
    u16 m_freeCount = 0;
    u8 m_blockBits;
    u8 m_kind;
    u8 m_home = 0;
};

static_assert(sizeof(CChunkRecords) == 24);
static_assert(CChunkRecords::Record::is_always_lock_free && sizeof(CChunkRecords::Record) == 2);

/// What a chunk's entries in the tree say, in 47 bits: where its records are and, in the low bits that are free because
/// of their alignment, the size and kind of its blocks.
class CChunkTag {
public:
    static constexpr u32 Bits = 47;
    static constexpr u32 KindCount = 4;
    static constexpr u32 ClassCount = 8;

    /// 0 to 31, for the kinds of pools and their block sizes.
    [[nodiscard]] static constexpr u32 GetNumber(EHeap::Type kind, u32 blockBits)
    {
        return (kind - 1u) * ClassCount + blockBits - SmallestBlockBits;
    }

    CChunkTag() = default;
    /// Bits above do not matter.
    explicit CChunkTag(u64 entry) : m_value(entry) {}
    explicit CChunkTag(CChunkRecords& chunk)
        : m_value(reinterpret_cast<u64>(chunk.GetRecords()) | GetNumber(chunk.GetKind(), chunk.GetBlockBits()))
    {
    }

    [[nodiscard]] u64 GetValue() const { return m_value & Mask; }
    [[nodiscard]] CChunkRecords::Record* GetRecords() const
    {
        return reinterpret_cast<CChunkRecords::Record*>(m_value & Mask & ~(CChunkRecords::Alignment - 1));
    }
    [[nodiscard]] u32 GetNumber() const { return m_value % (KindCount * ClassCount); }
    /// 0 to 7, for blocks of 8 to 1,024 bytes.
    [[nodiscard]] u32 GetClass() const { return m_value % ClassCount; }
    [[nodiscard]] u32 GetBlockBits() const { return GetClass() + SmallestBlockBits; }
    [[nodiscard]] EHeap::Type GetKind() const { return static_cast<EHeap::Type>(GetNumber() / ClassCount + 1); }

private:
    static constexpr u32 SmallestBlockBits = 3;
    static constexpr u64 Mask = (u64{1} << Bits) - 1;

    u64 m_value = 0;
};

/// The chunks of a class that have free blocks, first come, first served: a chunk whose turn comes late has gathered
/// free blocks meanwhile, and what is allocated together then lies together, whatever the order of the releases was.
///
/// They wait apart by their homes, the lanes that took blocks from them first. A lane takes from its own chunks while
/// it can: if the blocks of a chunk went to several threads, each would write to records in one cache line.
/// Under the class lock.
class CFreeChunks {
public:
    static constexpr u32 HomeCount = 32;

    [[nodiscard]] bool IsEmpty() const { return m_homes == 0; }

    void Add(CChunkRecords& chunk, u64 address)
    {
        chunk.SetFree(address);
        if (chunk.next == nullptr)
            Append(chunk);
    }

    /// Takes up to `wanted` blocks, if there are any, of the chunks at home or else of those at another one, and runs
    /// `visit(address, record)` for each.
    template <class Visit>
    void Take(u32 wanted, u32 home, Visit&& visit)
    {
        if (m_homes == 0)
            return;
        u32 const source = (m_homes >> home & 1) != 0 ? home : static_cast<u32>(std::countr_zero(m_homes));
        while (wanted != 0 && m_last[source] != nullptr) {
            CChunkRecords& chunk = *m_last[source]->next;
            if (chunk.IsWhollyFree())
                chunk.SetHome(home); // nobody else has blocks of it
            wanted -= chunk.TakeFree(wanted, visit);
            if (chunk.GetFreeCount() == 0 || chunk.GetHome() != source) {
                RemoveFirst(source);
                if (chunk.GetFreeCount() != 0)
                    Append(chunk);
            }
        }
    }

    /// Leaves the chunks out of which every block is free: they are about to go.
    void RemoveWhollyFree();
    void Clear() { *this = CFreeChunks(); }

private:
    void Append(CChunkRecords& chunk)
    {
        u32 const home = chunk.GetHome();
        CChunkRecords*& last = m_last[home];
        chunk.next = last != nullptr ? last->next : &chunk;
        if (last != nullptr)
            last->next = &chunk;
        last = &chunk;
        m_homes |= 1u << home;
    }
    CChunkRecords& RemoveFirst(u32 home)
    {
        CChunkRecords*& last = m_last[home];
        CChunkRecords& first = *last->next;
        last->next = first.next;
        if (last == &first) {
            last = nullptr;
            m_homes &= ~(1u << home);
        }
        first.next = nullptr;
        return first;
    }

    u32 m_homes = 0;                       // a bit for each that has chunks here
    CChunkRecords* m_last[HomeCount] = {}; // by home; its next one is the first
};

/// One radix tree. Looking up needs no lock; adding and removing need one of the caller's.
/// \tparam GranuleBits  base-2 logarithm of the bytes that one entry stands for.
template <u32 GranuleBits>
class TChunkTree {
public:
    /// Smaller chunks cannot be added: at most one may begin inside a granule, and one more reach into it.
    static constexpr u64 SmallestChunk = u64{1} << GranuleBits;

    TChunkTree() { ClearShortcuts(); }
    TChunkTree(TChunkTree const&) = delete;
    TChunkTree& operator=(TChunkTree const&) = delete;
    ~TChunkTree() = default;

    struct SFound {
        CChunkTag tag;
        u64 distance = 0; ///< of the address from the chunk's start; beyond every chunk's end, it may be
    };

    /// The only chunk of the tree that may hold the address, which may be any; false when there is none.
    [[nodiscard, gnu::always_inline]] bool TryFind(u64 address, SFound& found) const
    {
        u64 const number = address >> LeafShift;
        u64 const place = number % ShortcutCount;
        SLeaf const* leaf = nullptr;
        if (m_shortcutNumbers[place].load(std::memory_order_acquire) == number) [[likely]]
            leaf = m_shortcutLeaves[place];
        else if (leaf = FindLeaf(number); leaf == nullptr)
            return false;
        SGranule const& granule = leaf->granules[(address >> GranuleBits) & LevelMask];
        u64 const inside = granule.inside.load(std::memory_order_acquire);
        u64 const across = granule.across.load(std::memory_order_acquire);
        u64 const offset = address & (SmallestChunk - 1);
        u64 const entry = offset >= inside >> CChunkTag::Bits ? inside : across;
        found = {CChunkTag(entry), offset - static_cast<u64>(static_cast<i64>(entry) >> CChunkTag::Bits)};
        return true;
    }

    /// False when the hooks refuse the memory for a part of the tree, the chunk is smaller or larger than the tree can
    /// say, or an address is beyond what a program gets; the tree holds what it held then.
    [[nodiscard]] bool Add(SMemoryHooks const& hooks, CChunkRecords& chunk);

    void Remove(CChunkRecords& chunk);

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

    // An entry is a chunk's tag and, above it, the signed distance from the granule's first byte to the chunk's start.
    struct SGranule {
        std::atomic<u64> across{NoneAcross}; // the chunk that holds the granule's first byte; begins there or before it
        std::atomic<u64> inside{NoneInside}; // the chunk that begins behind it
    };
    static constexpr u64 DistanceRange = u64{1} << (63 - CChunkTag::Bits);
    static constexpr u64 NoneInside = ~u64{0} << CChunkTag::Bits;       // unsigned: begins behind everything
    static constexpr u64 NoneAcross = DistanceRange << CChunkTag::Bits; // begins so long before that it has ended
    static_assert(SmallestChunk <= DistanceRange);

    struct SLeaf {
        SGranule granules[LevelSize];
    };
    struct SBranch {
        std::atomic<SLeaf*> leaves[LevelSize] = {};
    };

    static constexpr u64 ShortcutCount = 64;
    static constexpr u64 NoLeaf = ~u64{0};

    // Through its branch; null when nothing was ever added there. Any number.
    [[nodiscard, gnu::always_inline]] SLeaf* FindLeaf(u64 number) const
    {
        if (number >> 2 * LevelBits != 0)
            return nullptr;
        SBranch const* const branch = m_branches[number >> LevelBits].load(std::memory_order_acquire);
        return branch != nullptr ? branch->leaves[number & LevelMask].load(std::memory_order_acquire) : nullptr;
    }

    void ClearShortcuts();
    void OfferShortcut(u64 number, SLeaf* leaf);
    [[nodiscard]] SGranule* MakeGranule(SMemoryHooks const& hooks, u64 number);
    [[nodiscard]] SGranule& GetGranule(u64 number) const;
    void SetEntry(CChunkRecords& chunk, u64 number, bool isPresent);

    // Leaves that are found without their branches: of those whose numbers end alike the first one, for good. A leaf is
    // set before its number, the bits of the addresses above those of its granules.
    std::atomic<u64> m_shortcutNumbers[ShortcutCount];
    SLeaf* m_shortcutLeaves[ShortcutCount] = {};
    std::atomic<SBranch*> m_branches[LevelSize] = {};
};

/// All chunks: those of 16 KB and more, the usual ones, in a tree that is small enough for the cache, smaller ones in
/// another.
class CChunkMap {
public:
    struct SFound {
        CChunkRecords::Record* record = nullptr; ///< null when no chunk in the map has a block at the address
        CChunkTag tag;                           ///< of the block's chunk
    };

    /// The record of the block that begins at the address, which may be any.
    [[nodiscard, gnu::always_inline]] SFound Find(u64 address) const
    {
        SFound found;
        return TryFind(address, found) ? found : SFound{};
    }

    /// The same; false when there is none, and `found` is worth nothing.
    [[nodiscard, gnu::always_inline]] bool TryFind(u64 address, SFound& found) const
    {
        return FindRecord(m_large, address, found) || FindRecord(m_small, address, found);
    }

    /// The records of a found block's chunk.
    [[nodiscard]] CChunkRecords& GetChunk(SFound const& found) const
    {
        return *CChunkRecords::FromRecords(found.tag.GetRecords(),
                                           static_cast<u32>(GetBlockCount(found.tag.GetClass())));
    }

    /// False, and the map as before, when the chunk cannot be added: smaller than 2 KB, of another number of blocks
    /// than others of its block size, or no memory for the map.
    [[nodiscard]] bool Add(SMemoryHooks const& hooks, CChunkRecords& chunk);
    void Remove(CChunkRecords& chunk)
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

    [[nodiscard]] u64 GetBlockCount(u32 index) const { return m_blockCounts[index].load(std::memory_order_relaxed); }

    template <class Tree>
    [[nodiscard, gnu::always_inline]] bool FindRecord(Tree const& tree, u64 address, SFound& found) const
    {
        typename Tree::SFound inTree;
        if (!tree.TryFind(address, inTree)) [[unlikely]]
            return false;
        // Bits below the block size come out on top and make the index too large, as does an address behind the end.
        u64 const index = std::rotr(inTree.distance, static_cast<int>(inTree.tag.GetBlockBits()));
        if (index >= GetBlockCount(inTree.tag.GetClass())) [[unlikely]]
            return false;
        found = {inTree.tag.GetRecords() + index, inTree.tag};
        return true;
    }

    [[nodiscard]] static bool IsLarge(CChunkRecords const& chunk)
    {
        return chunk.GetEnd() - chunk.GetStart() >= LargeTree::SmallestChunk;
    }

    std::atomic<u64> m_blockCounts[CChunkTag::ClassCount] = {}; // blocks of a chunk, by class; 0 before the first
    LargeTree m_large;
    SmallTree m_small;
};

} // namespace Velmor
