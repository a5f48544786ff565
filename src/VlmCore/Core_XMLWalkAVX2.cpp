// The fast walk on AVX2, for processors that have it.
#include "Core_ProcessorFeatures.h"
#include "Core_XMLTokenizer.h"

#include <cstring>
#include <immintrin.h>

namespace Velmor {
namespace {

#define XML_TARGET VLM_TARGET("avx2,bmi,bmi2")
#define XML_VECTOR_FUNCTION XML_TARGET inline __attribute__((always_inline))

/// 64 bytes of text; each question is answered with a bit per byte.
class CVector256 {
public:
    XML_VECTOR_FUNCTION explicit CVector256(u8 const* text)
        : m_low(_mm256_loadu_si256(reinterpret_cast<__m256i const*>(text))),
          m_high(_mm256_loadu_si256(reinterpret_cast<__m256i const*>(text + 32)))
    {
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 Is(u8 byte) const
    {
        __m256i const wanted = Fill(byte);
        return Join(_mm256_cmpeq_epi8(m_low, wanted), _mm256_cmpeq_epi8(m_high, wanted));
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsEither(u8 first, u8 second) const
    {
        return Join(IsEither(m_low, first, second), IsEither(m_high, first, second));
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsAnyOf(u8 first, u8 second, u8 third) const
    {
        __m256i const wanted = Fill(third);
        return Join(_mm256_or_si256(IsEither(m_low, first, second), _mm256_cmpeq_epi8(m_low, wanted)),
                    _mm256_or_si256(IsEither(m_high, first, second), _mm256_cmpeq_epi8(m_high, wanted)));
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsSpace() const { return Join(IsSpace(m_low), IsSpace(m_high)); }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsSpaceOrEither(u8 first, u8 second) const
    {
        return Join(_mm256_or_si256(IsSpace(m_low), IsEither(m_low, first, second)),
                    _mm256_or_si256(IsSpace(m_high), IsEither(m_high, first, second)));
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsHigh() const { return Join(m_low, m_high); }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsAtLeast(u8 bound) const
    {
        return Join(IsAtLeast(m_low, bound), IsAtLeast(m_high, bound));
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsMasked(u8 mask, u8 value) const
    {
        return Join(IsMasked(m_low, mask, value), IsMasked(m_high, mask, value));
    }

    /// True for any byte of 0xC0, 0xC1, 0xE0, 0xF0 and above.
    [[nodiscard]] XML_VECTOR_FUNCTION bool HasRareLead() const
    {
        __m256i const shorter = _mm256_or_si256(IsMasked(m_low, 0xFE, 0xC0), IsMasked(m_high, 0xFE, 0xC0));
        __m256i const longer = _mm256_or_si256(IsAtLeast(m_low, 0xF0), IsAtLeast(m_high, 0xF0));
        __m256i const third =
            _mm256_or_si256(_mm256_cmpeq_epi8(m_low, Fill(0xE0)), _mm256_cmpeq_epi8(m_high, Fill(0xE0)));
        return _mm256_movemask_epi8(_mm256_or_si256(_mm256_or_si256(shorter, longer), third)) != 0;
    }

    /// Copies 32 bytes.
    XML_VECTOR_FUNCTION static void CopyHalf(u8* target, u8 const* source)
    {
        __m256i const bytes = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(source));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(target), bytes);
    }

private:
    XML_VECTOR_FUNCTION static __m256i Fill(u8 byte) { return _mm256_set1_epi8(static_cast<char>(byte)); }

    XML_VECTOR_FUNCTION static __m256i IsEither(__m256i text, u8 first, u8 second)
    {
        return _mm256_or_si256(_mm256_cmpeq_epi8(text, Fill(first)), _mm256_cmpeq_epi8(text, Fill(second)));
    }

    XML_VECTOR_FUNCTION static __m256i IsSpace(__m256i text)
    {
        // By its lower four bits each byte meets the only white space it can be; bytes of 0x80 and above meet 0.
        __m256i const spaces = _mm256_setr_epi8(' ', 0, 0, 0, 0, 0, 0, 0, 0, '\t', '\n', 0, 0, '\r', 0, 0, ' ', 0, 0, 0,
                                                0, 0, 0, 0, 0, '\t', '\n', 0, 0, '\r', 0, 0);
        return _mm256_cmpeq_epi8(text, _mm256_shuffle_epi8(spaces, text));
    }

    XML_VECTOR_FUNCTION static __m256i IsAtLeast(__m256i text, u8 bound)
    {
        return _mm256_cmpeq_epi8(_mm256_max_epu8(text, Fill(bound)), text);
    }

    XML_VECTOR_FUNCTION static __m256i IsMasked(__m256i text, u8 mask, u8 value)
    {
        return _mm256_cmpeq_epi8(_mm256_and_si256(text, Fill(mask)), Fill(value));
    }

    XML_VECTOR_FUNCTION static u64 Join(__m256i low, __m256i high)
    {
        return static_cast<u32>(_mm256_movemask_epi8(low)) |
               static_cast<u64>(static_cast<u32>(_mm256_movemask_epi8(high))) << 32;
    }

    __m256i m_low;
    __m256i m_high;
};

} // namespace
} // namespace Velmor

#define XML_WALK WalkXMLAVX2
#define XML_VECTOR CVector256
#include "Core_XMLWalk.h"
