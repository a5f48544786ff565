// What fuzz targets share: a check that ends the run, texts without a spare byte, and a heap that leak checkers accept.
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace Velmor::Test {

inline void Check(bool holds, char const* what)
{
    if (!holds) {
        std::fprintf(stderr, "broken: %s\n", what);
        std::abort();
    }
}

/// Terminated text in a block of exactly its size.
class CExactText {
public:
    CExactText(u8 const* bytes, u64 size, EStringEncoding::Type encoding) : m_encoding(encoding)
    {
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        u64 const whole = size / unitSize * unitSize;
        m_bytes.reset(new u8[whole + unitSize]());
        std::copy(bytes, bytes + whole, m_bytes.get());
    }
    [[nodiscard]] CString Get() const { return CString(m_bytes.get(), m_encoding); }

private:
    EStringEncoding::Type m_encoding;
    std::unique_ptr<u8[]> m_bytes;
};

/// Takes values off the front of an input; zeros behind its end.
class CInput {
public:
    CInput(u8 const* data, u64 size) : m_data(data), m_size(size) {}

    template <class Value>
    [[nodiscard]] Value Take()
    {
        Value value{};
        u64 const count = std::min<u64>(sizeof(value), m_size);
        if (count != 0)
            std::memcpy(&value, m_data, count);
        m_data += count;
        m_size -= count;
        return value;
    }

    /// At most `most` of the remaining bytes.
    [[nodiscard]] CExactText TakeText(u64 most, EStringEncoding::Type encoding)
    {
        u64 const count = std::min(most, m_size);
        CExactText text(m_data, count, encoding);
        m_data += count;
        m_size -= count;
        return text;
    }

private:
    u8 const* m_data;
    u64 m_size;
};

[[nodiscard]] inline EStringEncoding::Type ChooseEncoding(u32 number)
{
    return static_cast<EStringEncoding::Type>(number % 3);
}

/// Starts the heap at the first call. The heap object, which the library never frees, stays reachable.
inline void PrepareHeap()
{
    static void* heapObject = nullptr;
    static bool const ready = [] {
        auto const keepingMalloc = +[](u64 size) -> void* {
            void* const block = std::malloc(size);
            heapObject = heapObject == nullptr ? block : heapObject;
            return block;
        };
        Memory::Initialize(keepingMalloc, nullptr, nullptr, EHeapFlag::Passthrough, 0);
        return Memory::IsInitialized();
    }();
    Check(ready, "heap");
}

[[nodiscard]] inline u64 CountLiveBlocks()
{
    Memory::SStatistics statistics;
    Check(Memory::GetStatistics(statistics), "statistics");
    return statistics.liveCount;
}

} // namespace Velmor::Test
