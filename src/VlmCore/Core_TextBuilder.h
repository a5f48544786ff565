/// \file
/// Building a text in two passes of one description: the first measures, the second writes into a buffer that fits.
#pragma once

#include "Core_Text.h"

#include <vlmcore/impl/Core_Encoding.h>
#include <vlmcore/memory.h>
#include <vlmcore/strings.h>

#include <cstring>

namespace Velmor::TextBuilder {

/// A buffer for a text of `size` bytes, terminator included. Throws CBadAllocation.
[[nodiscard]] inline u8* Allocate(u64 size)
{
    void* const buffer = Memory::Malloc(size, EHeap::Pool);
    if (buffer == nullptr)
        throw CBadAllocation();
    return static_cast<u8*>(buffer);
}

/// First pass: adds up bytes. A sum that leaves 64 bits is as good as out of memory.
template <class Rules>
class CMeasure {
public:
    void Copy(u8 const*, u64 size) { Add(size); }
    void Put(u32 codePoint) { Add(Rules::GetWrittenSize(codePoint)); }
    void Convert(CString const& text)
    {
        if (u64 const size = text.GetAllocatedSizeAs(Rules::Encoding); size != 0)
            Add(size - Rules::UnitSize);
    }
    [[nodiscard]] u64 GetSize() const { return m_size; }

private:
    void Add(u64 size)
    {
        if (size > ~u64{0} - 8 - m_size)
            throw CBadAllocation();
        m_size += size;
    }

    u64 m_size = 0;
};

/// Second pass: writes.
template <class Rules>
class CWriter {
public:
    explicit CWriter(u8* out) : m_out(out) {}
    void Copy(u8 const* from, u64 size)
    {
        if (size != 0)
            std::memcpy(m_out, from, size);
        m_out += size;
    }
    void Put(u32 codePoint) { m_out = Rules::Write(codePoint, m_out); }
    void Convert(CString const& text)
    {
        if (text.GetData() == nullptr)
            return;
        u8 const* const from = Encodings::AsBytes(text.GetData());
        Encodings::Dispatch(text.GetEncoding(), [&](auto rules) {
            using From = decltype(rules);
            if constexpr (From::Encoding == Rules::Encoding)
                Copy(from, Text::GetTextSize<From>(from));
            else
                m_out = Text::ConvertCharacters<From, Rules>(from, Text::CountCharacters<From>(from), m_out);
        });
    }
    void Terminate() { Encodings::Store(m_out, typename Rules::Unit{0}); }

private:
    u8* m_out;
};

/// Builds the text that `produce` describes by calls of Copy (units as they stand), Put (a code point) and Convert (a
/// whole text). It is called twice and must do the same both times. Throws CBadAllocation, `result` is then as before.
template <class Rules, class Produce>
void Build(CMutableString& result, EStringEncoding::Type encoding, Produce const& produce)
{
    CMeasure<Rules> measure;
    produce(measure);
    u8* const buffer = Allocate(measure.GetSize() + Rules::UnitSize);
    CWriter<Rules> writer(buffer);
    produce(writer);
    writer.Terminate();
    result.SetManagedReference(buffer, encoding);
}

} // namespace Velmor::TextBuilder
