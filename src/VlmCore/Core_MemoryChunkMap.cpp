#include "Core_MemoryChunkMap.h"

#include "Core_MemoryHeap.h"

#include <new>

namespace Velmor {

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
    node = ::new (memory) Node{};
    slot.store(node, std::memory_order_release);
    return node;
}

} // namespace

CChunkMap::SGranule* CChunkMap::MakeGranule(SMemoryHooks const& hooks, u64 number)
{
    u64 const address = number << GranuleBits;
    SBranch* const branch = MakeNode(hooks, m_branches[address >> BranchShift]);
    SLeaf* const leaf =
        branch != nullptr ? MakeNode(hooks, branch->leaves[(address >> LeafShift) & LevelMask]) : nullptr;
    return leaf != nullptr ? &leaf->granules[number & LevelMask] : nullptr;
}

CChunkMap::SGranule* CChunkMap::FindGranule(u64 number) const
{
    u64 const address = number << GranuleBits;
    SBranch* const branch = m_branches[address >> BranchShift].load(std::memory_order_relaxed);
    SLeaf* const leaf = branch != nullptr
                            ? branch->leaves[(address >> LeafShift) & LevelMask].load(std::memory_order_relaxed)
                            : nullptr;
    return leaf != nullptr ? &leaf->granules[number & LevelMask] : nullptr;
}

bool CChunkMap::Add(SMemoryHooks const& hooks, CChunkRecords* chunk)
{
    u64 const last = chunk->GetEnd() - 1;
    if (chunk->GetEnd() - chunk->GetStart() < SmallestChunk || last >> AddressBits != 0)
        return false;
    u64 const firstGranule = chunk->GetStart() >> GranuleBits;
    u64 const lastGranule = last >> GranuleBits;
    // All parts of the tree before the first entry, so that there is nothing to take back.
    for (u64 number = firstGranule; number <= lastGranule; ++number)
        if (MakeGranule(hooks, number) == nullptr)
            return false;
    for (u64 number = firstGranule; number <= lastGranule; ++number)
        GetSlot(*FindGranule(number), number, chunk).store(chunk, std::memory_order_release);
    return true;
}

void CChunkMap::Remove(CChunkRecords const* chunk)
{
    u64 const lastGranule = (chunk->GetEnd() - 1) >> GranuleBits;
    for (u64 number = chunk->GetStart() >> GranuleBits; number <= lastGranule; ++number)
        GetSlot(*FindGranule(number), number, chunk).store(nullptr, std::memory_order_relaxed);
}

void CChunkMap::Release(SMemoryHooks const& hooks)
{
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

} // namespace Velmor
