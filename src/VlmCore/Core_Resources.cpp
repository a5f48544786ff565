#include <vlmcore/resources.h>

#include "Core_MemoryModule.h"

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

CBlockStorage::CBlockStorage() : CBlockStorage(DefaultBlockSize) {}

CBlockStorage::CBlockStorage(unsigned int blockSize) : m_chunks(nullptr), m_chunkCount(0), m_blockSize(blockSize) {}

CBlockStorage::~CBlockStorage()
{
    Clear();
}

void* CBlockStorage::ReserveBytes(unsigned int size)
{
    SChunk* chunk = FindBestFit(size);
    if (chunk == nullptr)
        chunk = AddChunk(size);
    void* const reserved = chunk->cursor;
    chunk->cursor += size;
    chunk->bytesLeft -= size;
    return reserved;
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

CBlockStorage::SChunk* CBlockStorage::FindBestFit(u32 size) const
{
    SChunk* best = nullptr;
    for (u32 index = 0; index < m_chunkCount; ++index) {
        SChunk* const chunk = m_chunks + index;
        if (chunk->bytesLeft >= size && (best == nullptr || chunk->bytesLeft < best->bytesLeft))
            best = chunk;
    }
    return best;
}

u64 CBlockStorage::GetChunkSize(u32 size) const
{
    u64 const blockSize = m_blockSize;
    if (size <= blockSize)
        return blockSize;
    // A request of exactly two blocks gets a chunk of three; kept, hosts count on the room behind it.
    return blockSize == 0 ? size : blockSize * (size / blockSize + 1);
}

CBlockStorage::SChunk* CBlockStorage::AddChunk(u32 size)
{
    u64 const chunkSize = GetChunkSize(size);
    // bytesLeft counts in 32 bits.
    if (chunkSize > ~u32{0})
        throw CBadAllocation();

    // Both pieces are there before anything changes; the table is copied, since a refused Realloc would lose it.
    SChunk* const table = static_cast<SChunk*>(AllocateOrThrow((u64{m_chunkCount} + 1) * sizeof(SChunk)));
    // An arena of block size 0 still needs an address to hand out for an empty request.
    void* const memory = Memory::Malloc(chunkSize == 0 ? 1 : chunkSize, EHeap::Pool);
    if (memory == nullptr) {
        Memory::FreeQuietly(table);
        throw CBadAllocation();
    }
    if (m_chunkCount != 0)
        std::memcpy(table, m_chunks, u64{m_chunkCount} * sizeof(SChunk));
    Memory::FreeQuietly(m_chunks);
    m_chunks = table;

    SChunk* const chunk = m_chunks + m_chunkCount;
    ++m_chunkCount;
    chunk->start = static_cast<u8*>(memory);
    chunk->cursor = chunk->start;
    chunk->bytesLeft = static_cast<u32>(chunkSize);
    return chunk;
}

} // namespace Velmor
