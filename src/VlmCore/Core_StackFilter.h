/// \file
/// A quick look whether a call stack is known.
#pragma once

#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

/// Remembers stack hashes, not all of them: "yes" is certain, "no" is not. One thread notes, any number ask, without a
/// lock and without waiting. Two places per hash; a third hash that needs them pushes one out.
class CStackFilter {
public:
    void Note(u32 hash)
    {
        u32 const place = GetPlace(hash);
        u32 const old = m_hashes[place].load(std::memory_order_relaxed);
        m_hashes[old == 0 ? place : place ^ 1].store(hash, std::memory_order_relaxed);
    }

    /// True for a hash that was noted; false for some of these, and for 0.
    [[nodiscard]] bool Knows(u32 hash) const
    {
        u32 const place = GetPlace(hash);
        return hash != 0 && (m_hashes[place].load(std::memory_order_relaxed) == hash ||
                             m_hashes[place ^ 1].load(std::memory_order_relaxed) == hash);
    }

private:
    static constexpr u32 CountBits = 13;
    static u32 GetPlace(u32 hash) { return (hash * 0x9E3779B1u) >> (32 - CountBits); }

    std::atomic<u32> m_hashes[1u << CountBits]{};
};

} // namespace Velmor
