/// \file
/// Reference-counted objects, their owning handle, and an append-only arena.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <atomic>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace Velmor {

/// Intrusive reference counter: derive from it, allocate with MakeResource, hold with TResourcePtr.
/// Retain and Release are atomic and may be called from any thread.
class VLM_API CResource {
public:
    /// Marks a type as carrying the counter.
    static constexpr int DerivedFromCResource = 1;

    CResource();
    CResource(CResource const& other);
    /// Copies the count as it stands.
    CResource& operator=(CResource const& other);

    /// One reference more.
    void Retain();
    /// True when the last reference went; the caller then destroys the object.
    [[nodiscard]] bool Release();
    [[nodiscard]] int GetRefCount() const;

private:
    std::atomic<i32> m_refCount;
};

namespace Impl {

/// CResource::Release for handles. False, and the object not looked at, without a heap: its memory may be gone, too.
[[nodiscard]] VLM_API bool ReleaseHeldResource(CResource* resource);

} // namespace Impl

/// Owning handle of an object that derives from CResource and lives in memory of the memory manager.
/// The object is destroyed and freed when its last handle goes. Different handles of one object may be used from
/// different threads; one handle belongs to one thread at a time. A handle that outlives the heap, as statics do at
/// exit, lets go of its object without touching it: pools take their objects with them.
template <class T>
class TResourcePtr {
public:
    TResourcePtr() = default;
    TResourcePtr(std::nullptr_t) {}
    /// Retains `object`, null included.
    TResourcePtr(T* object) : m_object(object) { RetainObject(); }
    TResourcePtr(TResourcePtr const& other) : m_object(other.m_object) { RetainObject(); }
    TResourcePtr(TResourcePtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}

    template <class Derived>
        requires std::is_convertible_v<Derived*, T*>
    TResourcePtr(TResourcePtr<Derived> const& other) : m_object(other.Get())
    {
        RetainObject();
    }

    ~TResourcePtr() { Reset(); }

    TResourcePtr& operator=(TResourcePtr other) noexcept
    {
        std::swap(m_object, other.m_object);
        return *this;
    }

    /// Drops the reference; the handle is null afterwards, also seen from a destructor that this runs.
    void Reset()
    {
        T* const object = std::exchange(m_object, nullptr);
        if (object != nullptr && Impl::ReleaseHeldResource(object)) {
            void* const memory = dynamic_cast<void*>(object);
            object->~T();
            Memory::FreeQuietly(memory);
        }
    }

    /// The object; null when there is none.
    [[nodiscard]] T* Get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }
    explicit operator bool() const { return m_object != nullptr; }

    /// Equal: the same object, or none.
    friend bool operator==(TResourcePtr const& left, TResourcePtr const& right)
    {
        return left.m_object == right.m_object;
    }
    friend bool operator==(TResourcePtr const& left, T const* right) { return left.m_object == right; }
    friend bool operator==(TResourcePtr const& left, std::nullptr_t) { return left.m_object == nullptr; }

private:
    void RetainObject()
    {
        if (m_object != nullptr)
            m_object->Retain();
    }

    T* m_object = nullptr;
};

/// Allocates and constructs a T and returns its first handle. Throws CBadAllocation, or what the constructor throws.
template <class T, class... Arguments>
[[nodiscard]] TResourcePtr<T> MakeResource(Arguments&&... arguments)
{
    return TResourcePtr<T>(Memory::New<T>(EHeap::Pool, std::forward<Arguments>(arguments)...));
}

/// Append-only arena: byte runs are carved from large chunks and freed all at once. A reservation takes the chunk with
/// the least room that suffices, the first of equals, in logarithmic time. One thread at a time.
class VLM_API CBlockStorage {
public:
    CBlockStorage();
    /// \param blockSize  standard chunk size in bytes.
    explicit CBlockStorage(unsigned int blockSize);
    CBlockStorage(CBlockStorage const&) = delete;
    CBlockStorage& operator=(CBlockStorage const&) = delete;
    ~CBlockStorage();

    /// Reserves `size` bytes, unaligned. Throws CBadAllocation.
    [[nodiscard]] void* ReserveBytes(unsigned int size);
    /// Reserves `size` bytes and copies `data` into them. Throws CBadAllocation.
    void* StoreCopy(void const* data, unsigned int size);
    /// Frees every chunk; what ReserveBytes returned is gone. Without a heap it is gone already.
    void Clear();

private:
    struct SChunk;
    struct SFitLinks;
    class CFitTree;

    [[nodiscard]] u64 GetChunkSize(u32 size) const;
    void AddChunk(u32 size);

    SChunk* m_chunks;
    u32 m_chunkCount;
    u32 m_blockSize;
};

} // namespace Velmor
