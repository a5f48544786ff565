// The fast walk on SSE2, which every x64 processor has.
#include "Core_ProcessorFeatures.h"
#include "Core_XMLTokenizer.h"

#include <cstring>
#include <emmintrin.h>

namespace Velmor {
namespace {

/// 64 bytes of text; each question is answered with a bit per byte.
class CVector128 {
public:
    explicit CVector128(u8 const* text)
    {
        for (int i = 0; i < 4; ++i)
            m_parts[i] = _mm_loadu_si128(reinterpret_cast<__m128i const*>(text + 16 * i));
    }

    [[nodiscard]] u64 Is(u8 byte) const
    {
        __m128i const wanted = Fill(byte);
        return Join([&](__m128i part) { return _mm_cmpeq_epi8(part, wanted); });
    }

    [[nodiscard]] u64 IsEither(u8 first, u8 second) const
    {
        return Join([&](__m128i part) { return IsEither(part, first, second); });
    }

    [[nodiscard]] u64 IsAnyOf(u8 first, u8 second, u8 third) const
    {
        return Join([&](__m128i part) {
            return _mm_or_si128(IsEither(part, first, second), _mm_cmpeq_epi8(part, Fill(third)));
        });
    }

    [[nodiscard]] u64 IsSpace() const
    {
        return Join([](__m128i part) { return IsSpace(part); });
    }

    [[nodiscard]] u64 IsSpaceOrEither(u8 first, u8 second) const
    {
        return Join([&](__m128i part) { return _mm_or_si128(IsSpace(part), IsEither(part, first, second)); });
    }

    [[nodiscard]] u64 IsHigh() const
    {
        return Join([](__m128i part) { return part; });
    }

    [[nodiscard]] u64 IsAtLeast(u8 bound) const
    {
        return Join([&](__m128i part) { return IsAtLeast(part, bound); });
    }

    [[nodiscard]] u64 IsMasked(u8 mask, u8 value) const
    {
        return Join([&](__m128i part) { return IsMasked(part, mask, value); });
    }

    /// True for any byte of 0xC0, 0xC1, 0xE0, 0xF0 and above.
    [[nodiscard]] bool HasRareLead() const
    {
        __m128i found = _mm_setzero_si128();
        for (__m128i const part : m_parts) {
            __m128i const threeAtMost = _mm_or_si128(IsMasked(part, 0xFE, 0xC0), _mm_cmpeq_epi8(part, Fill(0xE0)));
            found = _mm_or_si128(found, _mm_or_si128(threeAtMost, IsAtLeast(part, 0xF0)));
        }
        return _mm_movemask_epi8(found) != 0;
    }

    /// Copies 32 bytes.
    static void CopyHalf(u8* target, u8 const* source)
    {
        __m128i const first = _mm_loadu_si128(reinterpret_cast<__m128i const*>(source));
        __m128i const second = _mm_loadu_si128(reinterpret_cast<__m128i const*>(source + 16));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(target), first);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(target + 16), second);
    }

private:
    static __m128i Fill(u8 byte) { return _mm_set1_epi8(static_cast<char>(byte)); }

    static __m128i IsEither(__m128i text, u8 first, u8 second)
    {
        return _mm_or_si128(_mm_cmpeq_epi8(text, Fill(first)), _mm_cmpeq_epi8(text, Fill(second)));
    }

    static __m128i IsSpace(__m128i text) { return _mm_or_si128(IsEither(text, ' ', '\t'), IsEither(text, '\n', '\r')); }

    static __m128i IsAtLeast(__m128i text, u8 bound) { return _mm_cmpeq_epi8(_mm_max_epu8(text, Fill(bound)), text); }

    static __m128i IsMasked(__m128i text, u8 mask, u8 value)
    {
        return _mm_cmpeq_epi8(_mm_and_si128(text, Fill(mask)), Fill(value));
    }

    template <class Question>
    [[nodiscard]] u64 Join(Question const& question) const
    {
        u64 bits = 0;
        for (int i = 0; i < 4; ++i)
            bits |= static_cast<u64>(static_cast<u32>(_mm_movemask_epi8(question(m_parts[i])))) << (16 * i);
        return bits;
    }

    __m128i m_parts[4];
};

} // namespace
} // namespace Velmor

#define XML_WALK WalkXMLBaseline
#define XML_VECTOR CVector128
#define XML_TARGET
#include "Core_XMLWalk.h"
