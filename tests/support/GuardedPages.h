// Memory whose end, and whose start, is the end of what may be touched: one access outside ends the process.
#pragma once

#include <vlmcore/types.h>

#include <cstring>

namespace Velmor::Test {

/// Readable and writable pages between two that may not be touched.
class CGuardedPages {
public:
    /// At least `bytes` bytes, rounded up to whole pages.
    explicit CGuardedPages(u64 bytes);
    ~CGuardedPages();
    CGuardedPages(CGuardedPages const&) = delete;
    CGuardedPages& operator=(CGuardedPages const&) = delete;

    /// First byte that may be touched.
    [[nodiscard]] u8* GetBegin() const { return m_begin; }
    /// First byte that may not be touched any more.
    [[nodiscard]] u8* GetEnd() const { return m_begin + m_size; }

    /// `bytes` bytes that end where the pages end.
    [[nodiscard]] u8* TakeTail(u64 bytes) const { return GetEnd() - bytes; }
    /// A copy of `bytes` bytes that ends where the pages end.
    [[nodiscard]] u8* PlaceAtEnd(void const* data, u64 bytes) const
    {
        u8* const place = TakeTail(bytes);
        std::memcpy(place, data, bytes);
        return place;
    }

private:
    u8* m_begin = nullptr;
    u64 m_size = 0;
};

} // namespace Velmor::Test
