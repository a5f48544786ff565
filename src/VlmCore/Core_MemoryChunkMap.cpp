#include "Core_MemoryChunkMap.h"

#include "Core_MemoryHeap.h"

#include <new>

namespace Velmor {

void CFreeChunks::RemoveWhollyFree()
{
    CFreeChunks kept;
    while (!IsEmpty())
        if (CChunkRecords& chunk = RemoveFirst(static_cast<u32>(std::countr_zero(m_homes))); !chunk.IsWhollyFree())
            kept.Append(chunk);
    *this = kept;
}

namespace {

// The node that the slot points to, made when it is missing; null when the hook gives no memory.
template <class Node>
Node* MakeNode(SMemoryHooks const& hooks, std::atomic<Node*>& slot)
{
    Node* node = slot.load(std::memory_order_relaxed);
    if (node != nullptr)
        return node;
    void* const memory = hooks.malloc(sizeof(Node));
    if (memory == nullptr)
        return nullptr;
    node = ::new (memory) Node;
    slot.store(node, std::memory_order_release);
    return node;
}

} // namespace

template <u32 GranuleBits>
auto TChunkTree<GranuleBits>::MakeGranule(SMemoryHooks const& hooks, u64 number) -> SGranule*
{
    u64 const address = number << GranuleBits;
    SBranch* const branch = MakeNode(hooks, m_branches[address >> BranchShift]);
    SLeaf* const leaf =
        branch != nullptr ? MakeNode(hooks, branch->leaves[(address >> LeafShift) & LevelMask]) : nullptr;
    if (leaf == nullptr)
        return nullptr;
    OfferShortcut(address >> LeafShift, leaf);
    return &leaf->granules[number & LevelMask];
}

template <u32 GranuleBits>
void TChunkTree<GranuleBits>::ClearShortcuts()
{
    for (std::atomic<u64>& number : m_shortcutNumbers)
        number.store(NoLeaf, std::memory_order_relaxed);
}

template <u32 GranuleBits>
void TChunkTree<GranuleBits>::OfferShortcut(u64 number, SLeaf* leaf)
{
    u64 const place = number % ShortcutCount;
    if (m_shortcutNumbers[place].load(std::memory_order_relaxed) != NoLeaf)
        return;
    m_shortcutLeaves[place] = leaf;
    m_shortcutNumbers[place].store(number, std::memory_order_release);
}

// One that MakeGranule made before.
template <u32 GranuleBits>
auto TChunkTree<GranuleBits>::GetGranule(u64 number) const -> SGranule&
{
    return FindLeaf(number >> LevelBits)->granules[number & LevelMask];
}

template <u32 GranuleBits>
void TChunkTree<GranuleBits>::SetEntry(CChunkRecords& chunk, u64 number, bool isPresent)
{
    SGranule& granule = GetGranule(number);
    u64 const granuleStart = number << GranuleBits;
    bool const isAcross = chunk.GetStart() <= granuleStart;
    u64 const none = isAcross ? NoneAcross : NoneInside;
    u64 const entry = CChunkTag(chunk).GetValue() | (chunk.GetStart() - granuleStart) << CChunkTag::Bits;
    (isAcross ? granule.across : granule.inside).store(isPresent ? entry : none, std::memory_order_release);
}

template <u32 GranuleBits>
bool TChunkTree<GranuleBits>::Add(SMemoryHooks const& hooks, CChunkRecords& chunk)
{
    u64 const size = chunk.GetEnd() - chunk.GetStart();
    u64 const last = chunk.GetEnd() - 1;
    if (size < SmallestChunk || size >= DistanceRange || last >> AddressBits != 0 ||
        reinterpret_cast<u64>(chunk.GetRecords()) >> CChunkTag::Bits != 0)
        return false;
    u64 const firstGranule = chunk.GetStart() >> GranuleBits;
    u64 const lastGranule = last >> GranuleBits;
    // All parts of the tree before the first entry, so that there is nothing to take back.
    for (u64 number = firstGranule; number <= lastGranule; ++number)
        if (MakeGranule(hooks, number) == nullptr)
            return false;
    for (u64 number = firstGranule; number <= lastGranule; ++number)
        SetEntry(chunk, number, true);
    return true;
}

template <u32 GranuleBits>
void TChunkTree<GranuleBits>::Remove(CChunkRecords& chunk)
{
    u64 const lastGranule = (chunk.GetEnd() - 1) >> GranuleBits;
    for (u64 number = chunk.GetStart() >> GranuleBits; number <= lastGranule; ++number)
        SetEntry(chunk, number, false);
}

template <u32 GranuleBits>
void TChunkTree<GranuleBits>::Release(SMemoryHooks const& hooks)
{
    ClearShortcuts();
    for (std::atomic<SBranch*>& branchSlot : m_branches) {
        SBranch* const branch = branchSlot.exchange(nullptr, std::memory_order_relaxed);
        if (branch == nullptr)
            continue;
        for (std::atomic<SLeaf*>& leafSlot : branch->leaves)
            if (SLeaf* const leaf = leafSlot.load(std::memory_order_relaxed))
                hooks.free(leaf);
        hooks.free(branch);
    }
}

bool CChunkMap::Add(SMemoryHooks const& hooks, CChunkRecords& chunk)
{
    std::atomic<u64>& blockCount = m_blockCounts[CChunkTag(chunk).GetClass()];
    u64 const known = blockCount.load(std::memory_order_relaxed);
    if (known != 0 && known != chunk.GetBlockCount())
        return false;
    // Before the entries: whoever finds one finds the number, too.
    blockCount.store(chunk.GetBlockCount(), std::memory_order_relaxed);
    if (IsLarge(chunk) ? m_large.Add(hooks, chunk) : m_small.Add(hooks, chunk))
        return true;
    blockCount.store(known, std::memory_order_relaxed);
    return false;
}

template class TChunkTree<14>;
template class TChunkTree<11>;

} // namespace Velmor
