/// \file
/// TUniquePtr: sole owner of an object from Memory::New.
#pragma once

#include <vlmcore/memory.h>

#include <utility>

namespace Velmor {

/// Sole owner of one object that was made with Memory::New; destroys it and frees its memory. Movable only. An owner
/// that outlives the heap, as statics do at exit, lets go of its object without touching it: pools take their objects
/// with them.
template <class T>
class TUniquePtr {
public:
    TUniquePtr() = default;
    TUniquePtr(std::nullptr_t) {}
    /// Owns `object`, null included.
    explicit TUniquePtr(T* object) : m_object(object) {}
    TUniquePtr(TUniquePtr const&) = delete;
    TUniquePtr(TUniquePtr&& other) noexcept : m_object(other.Detach()) {}
    ~TUniquePtr() { Destroy(m_object); }

    TUniquePtr& operator=(TUniquePtr const&) = delete;
    TUniquePtr& operator=(TUniquePtr&& other) noexcept
    {
        Reset(other.Detach());
        return *this;
    }

    /// Destroys the object and owns `object` instead.
    void Reset(T* object = nullptr) { Destroy(std::exchange(m_object, object)); }

    /// Gives the object up to the caller.
    [[nodiscard]] T* Detach() { return std::exchange(m_object, nullptr); }

    /// The object; null when there is none.
    [[nodiscard]] T* Get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }
    explicit operator bool() const { return m_object != nullptr; }

private:
    static void Destroy(T* object)
    {
        if (object != nullptr && Memory::IsInitialized())
            Memory::Delete(object);
    }

    T* m_object = nullptr;
};

} // namespace Velmor
