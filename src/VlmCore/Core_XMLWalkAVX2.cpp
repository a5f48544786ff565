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
        __m256i const a = Fill(first);
        __m256i const b = Fill(second);
        return Join(_mm256_or_si256(_mm256_cmpeq_epi8(m_low, a), _mm256_cmpeq_epi8(m_low, b)),
                    _mm256_or_si256(_mm256_cmpeq_epi8(m_high, a), _mm256_cmpeq_epi8(m_high, b)));
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsSpace() const
    {
        // By its lower four bits each byte meets the only white space it can be; bytes of 0x80 and above meet 0.
        __m256i const spaces = _mm256_setr_epi8(' ', 0, 0, 0, 0, 0, 0, 0, 0, '\t', '\n', 0, 0, '\r', 0, 0, ' ', 0, 0, 0,
                                                0, 0, 0, 0, 0, '\t', '\n', 0, 0, '\r', 0, 0);
        return Join(_mm256_cmpeq_epi8(m_low, _mm256_shuffle_epi8(spaces, m_low)),
                    _mm256_cmpeq_epi8(m_high, _mm256_shuffle_epi8(spaces, m_high)));
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsHigh() const { return Join(m_low, m_high); }

    /// Compares as signed bytes.
    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsBelow(int bound) const
    {
        __m256i const limit = _mm256_set1_epi8(static_cast<char>(bound));
        return Join(_mm256_cmpgt_epi8(limit, m_low), _mm256_cmpgt_epi8(limit, m_high));
    }

    [[nodiscard]] XML_VECTOR_FUNCTION u64 IsMasked(u8 mask, u8 value) const
    {
        __m256i const bits = Fill(mask);
        __m256i const wanted = Fill(value);
        return Join(_mm256_cmpeq_epi8(_mm256_and_si256(m_low, bits), wanted),
                    _mm256_cmpeq_epi8(_mm256_and_si256(m_high, bits), wanted));
    }

    /// Copies 32 bytes.
    XML_VECTOR_FUNCTION static void CopyHalf(u8* target, u8 const* source)
    {
        __m256i const bytes = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(source));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(target), bytes);
    }

private:
    XML_VECTOR_FUNCTION static __m256i Fill(u8 byte) { return _mm256_set1_epi8(static_cast<char>(byte)); }

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
