#include <vlmcore/resources.h>

#include "Core_MemoryModule.h"

#include <bit>
#include <cstring>

namespace Velmor {

// ---- CResource ----

CResource::CResource() : m_refCount(0) {}

CResource::CResource(CResource const& other) : m_refCount(other.GetRefCount()) {}

CResource& CResource::operator=(CResource const& other)
{
    m_refCount.store(other.GetRefCount(), std::memory_order_relaxed);
    return *this;
}

void CResource::Retain()
{
    m_refCount.fetch_add(1, std::memory_order_relaxed);
    Memory::LogRetain(&m_refCount);
}

bool CResource::Release()
{
    // What other threads did with the object happens before its destruction by the thread that drops the last handle.
    // Once the count is lowered, another thread may destroy the object: only its address is used from there on.
    bool const isLast = m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1;
    Memory::LogRelease(&m_refCount);
    return isLast;
}

int CResource::GetRefCount() const
{
    return m_refCount.load(std::memory_order_relaxed);
}

bool Impl::ReleaseHeldResource(CResource* resource)
{
    return g_heapModule.heap != nullptr && resource->Release();
}

// ---- CBlockStorage ----

namespace {

constexpr u32 DefaultBlockSize = 1024;

void* AllocateOrThrow(u64 size)
{
    void* const memory = Memory::Malloc(size, EHeap::Pool);
    if (memory == nullptr)
        throw CBadAllocation();
    return memory;
}

} // namespace

/// The chunk table has these, as many as it has room for, and behind them the tree's links.
struct CBlockStorage::SChunk {
    u8* start;
    u8* cursor;
    u32 bytesLeft;
};

/// Chunks are numbered from 1 on in the order of their making; 0 is none.
struct CBlockStorage::SFitLinks {
    u32 less; ///< chunk with less room; of number 0, the tree's root
    u32 more; ///< chunk with more
};

/// The chunks in the order of their room, those with the same in the order of their making: a tree by these, and a heap
/// by a hash of the numbers, which keeps it flat whatever comes (Seidel and Aragon's treap). A look through the table
/// at every reservation would make filling a storage quadratic.
class CBlockStorage::CFitTree {
public:
    /// The tree in a table for `count` chunks.
    CFitTree(SChunk* chunks, u64 count)
        : m_chunks(chunks), m_links(reinterpret_cast<SFitLinks*>(chunks + GetCapacity(count)))
    {
    }

    /// How many chunks the table for `count` has room for: a power of two, so that it is seldom copied.
    [[nodiscard]] static u64 GetCapacity(u64 count) { return std::bit_ceil(count); }

    /// Its size in bytes.
    [[nodiscard]] static u64 GetTableSize(u64 count)
    {
        return GetCapacity(count) * sizeof(SChunk) + (GetCapacity(count) + 1) * sizeof(SFitLinks);
    }

    void MakeEmpty() { m_links[0] = {0, 0}; }
    /// The `count` chunks of another table and its tree.
    void CopyFrom(CFitTree const& other, u64 count)
    {
        std::memcpy(m_chunks, other.m_chunks, count * sizeof(SChunk));
        std::memcpy(m_links, other.m_links, (count + 1) * sizeof(SFitLinks));
    }

    struct SFound {
        u32 chunk;  ///< the first in the order that has room; 0 when none has
        u32 before; ///< the one before it in the order, 0 for none
    };
    [[nodiscard]] SFound Find(u32 size) const
    {
        SFound found{0, 0};
        for (u32 chunk = m_links[0].less; chunk != 0;) {
            bool const fits = GetRoom(chunk) >= size;
            (fits ? found.chunk : found.before) = chunk;
            chunk = fits ? m_links[chunk].less : m_links[chunk].more;
        }
        return found;
    }

    /// Takes `size` bytes from a chunk that was found for so many, and returns where they begin.
    [[nodiscard]] u8* Reserve(SFound found, u32 size)
    {
        SChunk& chunk = m_chunks[found.chunk - 1];
        u32 const bytesLeft = chunk.bytesLeft - size;
        // Mostly it keeps its place: the chunks before it are nearly full.
        bool const staysBehind = found.before == 0 || bytesLeft > GetRoom(found.before);
        if (!staysBehind)
            Remove(found.chunk);
        chunk.bytesLeft = bytesLeft;
        if (!staysBehind)
            Insert(found.chunk);
        u8* const reserved = chunk.cursor;
        chunk.cursor += size;
        return reserved;
    }

    void Insert(u32 added)
    {
        u32* link = &m_links[0].less;
        while (*link != 0 && GetRank(*link) > GetRank(added))
            link = GetSide(*link, added);
        // What hung here is split into what comes before the new chunk and what behind.
        u32 rest = *link;
        *link = added;
        u32* before = &m_links[added].less;
        u32* behind = &m_links[added].more;
        while (rest != 0) {
            u32*& side = IsBefore(rest, added) ? before : behind;
            *side = rest;
            side = GetSide(rest, added);
            rest = *side;
        }
        *before = 0;
        *behind = 0;
    }

    void Remove(u32 removed)
    {
        u32* link = &m_links[0].less;
        while (*link != removed)
            link = GetSide(*link, removed);
        u32 before = m_links[removed].less;
        u32 behind = m_links[removed].more;
        while (before != 0 && behind != 0) {
            bool const isBeforeUp = GetRank(before) > GetRank(behind);
            u32& up = isBeforeUp ? before : behind;
            *link = up;
            link = isBeforeUp ? &m_links[up].more : &m_links[up].less;
            up = *link;
        }
        *link = before != 0 ? before : behind;
    }

private:
    [[nodiscard]] u32 GetRoom(u32 chunk) const { return m_chunks[chunk - 1].bytesLeft; }
    /// Different for every chunk.
    [[nodiscard]] static u32 GetRank(u32 chunk)
    {
        u32 const mixed = (chunk ^ chunk >> 16) * 0x85EBCA6B;
        return (mixed ^ mixed >> 13) * 0xC2B2AE35;
    }
    [[nodiscard]] bool IsBefore(u32 chunk, u32 other) const
    {
        u32 const room = GetRoom(chunk);
        u32 const otherRoom = GetRoom(other);
        return room < otherRoom || (room == otherRoom && chunk < other);
    }
    /// The link of `chunk` behind which `other` is, or belongs.
    [[nodiscard]] u32* GetSide(u32 chunk, u32 other) const
    {
        return IsBefore(chunk, other) ? &m_links[chunk].more : &m_links[chunk].less;
    }

    SChunk* m_chunks;
    SFitLinks* m_links;
};

CBlockStorage::CBlockStorage() : CBlockStorage(DefaultBlockSize) {}

CBlockStorage::CBlockStorage(unsigned int blockSize) : m_chunks(nullptr), m_chunkCount(0), m_blockSize(blockSize) {}

CBlockStorage::~CBlockStorage()
{
    Clear();
}

void* CBlockStorage::ReserveBytes(unsigned int size)
{
    if (m_chunkCount != 0) {
        CFitTree tree(m_chunks, m_chunkCount);
        if (CFitTree::SFound const found = tree.Find(size); found.chunk != 0)
            return tree.Reserve(found, size);
    }
    AddChunk(size);
    CFitTree tree(m_chunks, m_chunkCount);
    return tree.Reserve(tree.Find(size), size);
}

void* CBlockStorage::StoreCopy(void const* data, unsigned int size)
{
    void* const copy = ReserveBytes(size);
    if (size != 0)
        std::memcpy(copy, data, size);
    return copy;
}

void CBlockStorage::Clear()
{
    // The table lies in a pool: without a heap it must not be read.
    u32 const readable = g_heapModule.heap != nullptr ? m_chunkCount : 0;
    for (u32 index = 0; index < readable; ++index)
        Memory::FreeQuietly(m_chunks[index].start);
    Memory::FreeQuietly(m_chunks);
    m_chunks = nullptr;
    m_chunkCount = 0;
}

u64 CBlockStorage::GetChunkSize(u32 size) const
{
    u64 const blockSize = m_blockSize;
    if (size <= blockSize)
        return blockSize;
    // A request of exactly two blocks gets a chunk of three; kept, hosts count on the room behind it.
    return blockSize == 0 ? size : blockSize * (size / blockSize + 1);
}

void CBlockStorage::AddChunk(u32 size)
{
    u64 const chunkSize = GetChunkSize(size);
    // bytesLeft and the chunks' numbers have 32 bits.
    if (chunkSize > ~u32{0} || m_chunkCount == ~u32{0})
        throw CBadAllocation();

    // A table without room is copied, since a refused Realloc would lose it; both pieces are there before anything
    // changes.
    u64 const newCount = u64{m_chunkCount} + 1;
    bool const isFull = m_chunkCount == 0 || CFitTree::GetCapacity(m_chunkCount) < newCount;
    SChunk* const table = isFull ? static_cast<SChunk*>(AllocateOrThrow(CFitTree::GetTableSize(newCount))) : m_chunks;
    // An arena of block size 0 still needs an address to hand out for an empty request.
    void* const memory = Memory::Malloc(chunkSize == 0 ? 1 : chunkSize, EHeap::Pool);
    if (memory == nullptr) {
        if (isFull)
            Memory::FreeQuietly(table);
        throw CBadAllocation();
    }
    CFitTree tree(table, newCount);
    if (m_chunkCount == 0)
        tree.MakeEmpty();
    else if (isFull)
        tree.CopyFrom(CFitTree(m_chunks, m_chunkCount), m_chunkCount);
    if (isFull) {
        Memory::FreeQuietly(m_chunks);
        m_chunks = table;
    }
    u8* const start = static_cast<u8*>(memory);
    m_chunks[m_chunkCount] = {start, start, static_cast<u32>(chunkSize)};
    ++m_chunkCount;
    tree.Insert(m_chunkCount);
}

} // namespace Velmor
