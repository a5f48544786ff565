/// \file
/// The inner loops over text, in one set per vector width and a plain one. A set is chosen once by the processor; results
/// are those of Core_TextRules.h and Core_TextSearch.h on every input, malformed included.
///
/// Each kernel takes what it can in whole blocks, leaves irregular blocks to the plain rule, and the end to its caller or
/// to the plain rule. Reading never goes outside a text, but for GetTextSize and FindDifference: these read whole
/// vectors that hold at least one byte of the text and lie in its page, as the C library's strlen does.
#pragma once

#include <vlmcore/impl/Core_Encoding.h>

/// Marks functions that read around a text on purpose: whole registers, within the pages that the text lies in.
#if defined(__clang__) || defined(__GNUC__)
#  define VLM_READS_AROUND __attribute__((no_sanitize("address"), no_sanitize("thread")))
#else
#  define VLM_READS_AROUND
#endif

namespace Velmor::TextKernels {

/// The sets, from the slowest on.
enum class ELevel : u32 { Plain, SSE2, AVX2 };

/// Where a conversion has come to; `count` characters are still to do.
struct SConversion {
    u8 const* in;
    u8* out;
    u64 count;
};

/// Takes characters from the front of a conversion as long as `count` is large; leaves at least the last ones.
using ConvertKernel = void (*)(SConversion& state);

/// Functions for one-, two- and four-byte units stand in this order.
struct SKernels {
    /// Bytes up to the terminator, `limit` at the most (or a little more).
    u64 (*getTextSize[3])(u8 const* text, u64 limit);
    /// Characters of a text of `size` bytes.
    u64 (*countCharacters[3])(u8 const* text, u64 size);
    /// Byte offset of the first unit that differs or is a common terminator.
    u64 (*findDifference[3])(u8 const* left, u8 const* right);
    /// Bytes that a text of `size` bytes takes in another encoding: [from][to]; null where a formula does.
    u64 (*getConvertedSize[3][3])(u8 const* text, u64 size);
    /// [from][to]; null on the diagonal.
    ConvertKernel convert[3][3];
    /// 16 to 8 bits with surrogates taken for plain units.
    ConvertKernel convertPlaneZero;
    /// Moves on to the first place from which on a match may begin whose text starts with `first` (a unit or the bytes of
    /// a character) and has `last` at byte offset `lastOffset`; `size` bytes of text, `index` counts the characters
    /// passed. Stops in front of blocks that it cannot judge.
    u8 const* (*skipTo[3])(u8 const* place, u64 size, u32 first, u32 last, u64 lastOffset, u64& index);
    /// Letters from `first` to `first + 25` become those 32 up or down, in whole blocks; returns the bytes done.
    u64 (*mapCase[3])(u8* text, u64 size, u32 first);
};

/// The set in use.
[[nodiscard]] SKernels const& Get();

/// For tests: uses another set from now on; false when the processor has not got it. Not while other threads use text.
bool Force(ELevel level);
/// For tests: the level that this processor is given.
[[nodiscard]] ELevel GetBestLevel();

/// The sets; null members fall back to the plain rule.
extern SKernels const PlainKernels;
extern SKernels const SSE2Kernels;
extern SKernels const AVX2Kernels;

/// Position of an encoding in the tables.
template <class Rules>
inline constexpr u32 IndexOf = Rules::UnitSize == 1   ? 0
                               : Rules::UnitSize == 2 ? 1
                                                      : 2;

/// Blocks are of this many bytes.
inline constexpr u64 BlockSize = 64;

} // namespace Velmor::TextKernels
