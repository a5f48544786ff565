#include "Core_Path.h"

#include <vlmcore/files.h>
#include <vlmcore/memory.h>

#include <algorithm>
#include <cstring>

namespace Velmor {

namespace {

// No block can be larger; asking the memory manager for more could wrap its own sums.
constexpr u64 LargestStorage = u64{1} << 60;

u64 CopyOut(void* buffer, u64 size, void const* data, u64 dataSize, u64& position)
{
    u64 const count = std::min(size, dataSize - position);
    if (count != 0)
        std::memcpy(buffer, static_cast<u8 const*>(data) + position, count);
    position += count;
    return count;
}

// Where a seek leads before the kind of file has its say about the end: 0 for anything before the start.
u64 MovedPosition(ESeek::Type origin, i64 offset, u64 position, u64 size)
{
    u64 const magnitude = offset < 0 ? u64{0} - static_cast<u64>(offset) : static_cast<u64>(offset);
    u64 base;
    bool forward = offset >= 0;
    switch (origin) {
    case ESeek::Begin:
        base = 0;
        break;
    case ESeek::End:
        base = size;
        forward = !forward;
        break;
    case ESeek::Current:
        base = position;
        break;
    default:
        return position;
    }
    if (!forward)
        return base - std::min(base, magnitude);
    return base + std::min(magnitude, ~base); // stops at the largest position instead of wrapping
}

} // namespace

// Memory file

CMemoryFile::CMemoryFile(CString const& path) : m_name(Path::Split(path)) {}

CMemoryFile::~CMemoryFile()
{
    Memory::FreeQuietly(m_buffer.data);
}

u64 CMemoryFile::Read(void* buffer, u64 size)
{
    return ReachedEOF() ? 0 : CopyOut(buffer, size, m_buffer.data, m_buffer.size, m_position);
}

// New storage with the contents so far. Not resized in place: a refused resize would lose the block.
u8* CMemoryFile::AllocateLarger(u64 capacity) const
{
    void* const storage = capacity <= LargestStorage ? Memory::Malloc(capacity, EHeap::Pool) : nullptr;
    if (storage == nullptr)
        throw CBadAllocation();
    if (m_buffer.size != 0)
        std::memcpy(storage, m_buffer.data, m_buffer.size);
    return static_cast<u8*>(storage);
}

void CMemoryFile::AdoptStorage(u8* storage, u64 capacity)
{
    Memory::FreeQuietly(m_buffer.data);
    m_buffer.data = storage;
    m_buffer.capacity = capacity;
}

u64 CMemoryFile::Write(void const* buffer, u64 size)
{
    if (size > LargestStorage)
        throw CBadAllocation();
    u64 const end = m_position + size;
    if (end > m_buffer.capacity) {
        u8* const storage = AllocateLarger(end);
        // The source may lie in the old storage, which goes only afterwards.
        std::memcpy(storage + m_position, buffer, size);
        AdoptStorage(storage, end);
    }
    else if (size != 0) {
        std::memmove(m_buffer.data + m_position, buffer, size);
    }
    m_buffer.size = std::max(m_buffer.size, end);
    m_position = end;
    return size;
}

u64 CMemoryFile::Seek(ESeek::Type origin, i64 offset)
{
    u64 const position = MovedPosition(origin, offset, m_position, m_buffer.size);
    if (position > m_buffer.capacity)
        AdoptStorage(AllocateLarger(position), position);
    m_buffer.size = std::max(m_buffer.size, position);
    m_position = position;
    return 0;
}

// Byte-stream file

CByteStreamFile::CByteStreamFile(CString const& path, void const* data, u64 size)
    : m_name(Path::Split(path)), m_data(const_cast<void*>(data)), m_size(size), m_isWritable(false)
{
}

CByteStreamFile::CByteStreamFile(CString const& path, void* data, u64 size)
    : m_name(Path::Split(path)), m_data(data), m_size(size), m_isWritable(true)
{
}

CByteStreamFile::~CByteStreamFile() = default;

u64 CByteStreamFile::Read(void* buffer, u64 size)
{
    return ReachedEOF() ? 0 : CopyOut(buffer, size, m_data, m_size, m_position);
}

u64 CByteStreamFile::Write(void const* buffer, u64 size)
{
    if (!IsWritable())
        throw CFileException("Bytestream is not writeable.", EFileError::Denied);
    if (size > m_size - m_position)
        return 0;
    if (size != 0)
        std::memmove(static_cast<u8*>(m_data) + m_position, buffer, size);
    m_position += size;
    return size;
}

u64 CByteStreamFile::Seek(ESeek::Type origin, i64 offset)
{
    m_position = std::min(MovedPosition(origin, offset, m_position, m_size), m_size);
    return 0;
}

} // namespace Velmor
