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
        return Join([&](__m128i part) {
            return _mm_or_si128(_mm_cmpeq_epi8(part, Fill(first)), _mm_cmpeq_epi8(part, Fill(second)));
        });
    }

    [[nodiscard]] u64 IsSpace() const
    {
        return Join([&](__m128i part) {
            __m128i const inLine = _mm_or_si128(_mm_cmpeq_epi8(part, Fill(' ')), _mm_cmpeq_epi8(part, Fill('\t')));
            __m128i const lineEnd = _mm_or_si128(_mm_cmpeq_epi8(part, Fill('\n')), _mm_cmpeq_epi8(part, Fill('\r')));
            return _mm_or_si128(inLine, lineEnd);
        });
    }

    [[nodiscard]] u64 IsHigh() const
    {
        return Join([](__m128i part) { return part; });
    }

    /// Compares as signed bytes.
    [[nodiscard]] u64 IsBelow(int bound) const
    {
        __m128i const limit = _mm_set1_epi8(static_cast<char>(bound));
        return Join([&](__m128i part) { return _mm_cmplt_epi8(part, limit); });
    }

    [[nodiscard]] u64 IsMasked(u8 mask, u8 value) const
    {
        return Join([&](__m128i part) { return _mm_cmpeq_epi8(_mm_and_si128(part, Fill(mask)), Fill(value)); });
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
