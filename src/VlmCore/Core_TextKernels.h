/// \file
/// The inner loops over text, in one set per vector width and a plain one. A set is chosen once by the processor;
/// results are those of Core_TextRules.h and Core_TextSearch.h on every input, malformed included.
///
/// Each kernel takes what it can in whole registers and leaves irregular places to the plain rule. Reading may go
/// around a text, never beyond it: whole registers that hold at least one byte of the text and lie in its page, as the
/// C library's strlen does. Writing never goes outside.
#pragma once

#include <vlmcore/impl/Core_Encoding.h>

#include <atomic>

/// Marks functions that read around a text on purpose: whole registers, within the pages that the text lies in.
#if defined(__clang__) || defined(__GNUC__)
#  define VLM_READS_AROUND __attribute__((no_sanitize("address"), no_sanitize("thread")))
#else
#  define VLM_READS_AROUND
#endif

/// Parts of a loop whose state must stay in registers, and parts that must not take registers from a loop.
#if defined(__clang__) || defined(__GNUC__)
#  define VLM_INLINE inline __attribute__((always_inline))
#  define VLM_SEPARATE __attribute__((noinline))
#else
#  define VLM_INLINE inline
#  define VLM_SEPARATE
#endif

namespace Velmor::TextKernels {

/// The sets, from the slowest on.
enum class ELevel : u32 { Plain, SSE2, AVX2, AVX512 };

/// Converts `count` characters, whether or not a zero unit is among them; returns the position behind what was written.
using ConvertKernel = u8* (*)(u8 const* text, u64 count, u8* out);

/// What is looked for: units in the text's own encoding that nothing else stands for in regular text.
struct SNeedle {
    static constexpr u64 Capacity = 64;

    u8 units[Capacity];
    u64 size = 0;   ///< bytes
    u64 length = 0; ///< characters
};

/// Where a search has come to.
struct SSearch {
    u8 const* place;
    u64 index;        ///< characters in front of the place
    u8 const* resume; ///< where the kernel may be asked again
};

/// What FindInBlock gives where it cannot tell.
inline constexpr u64 Undecided = ~u64{0} - 1;

/// Functions for one-, two- and four-byte units stand in this order. Those of `find`, `mapCase`, `skipSame` and
/// `findInBlock` may be null: there is nothing faster than the plain rule then.
struct SKernels {
    /// Bytes up to the terminator.
    u64 (*getTextSize[3])(u8 const* text);
    /// Characters of a text; gives its bytes, too.
    u64 (*countCharacters[3])(u8 const* text, u64& size);
    /// Order of two texts as their units: negative, zero, positive.
    int (*compareUnits[3])(u8 const* left, u8 const* right);
    /// [narrow][wide]: units from the front on that are single characters and the same in both texts, in whole steps.
    u64 (*skipSame[3][3])(u8 const* narrow, u8 const* wide);
    /// Bytes that a text takes in another encoding: [from][to]; null on the diagonal.
    u64 (*getConvertedSize[3][3])(u8 const* text);
    /// [from][to]; null on the diagonal.
    ConvertKernel convert[3][3];
    /// 16 to 8 bits with surrogates taken for plain units.
    ConvertKernel convertPlaneZero;
    /// Moves on to the first match, or to a place from which the plain rule must go on up to `resume`: the terminator,
    /// or the first place whose match would reach into irregular text.
    void (*find[3])(SNeedle const& needle, SSearch& search);
    /// First place of a unit that is the given one, the terminator, or no character by itself (for bytes: 0x80 and
    /// above).
    u8 const* (*findSimple[3])(u8 const* text, u32 unit);
    /// Index of the first occurrence of one ASCII text in another, all ones when there is none; Undecided when one of
    /// them is not ASCII, or does not end within a block.
    u64 (*findInBlock)(u8 const* text, u8 const* needle);
    /// Letters from `first` to `first + 25` become those 32 up or down; returns the bytes done, whole characters.
    u64 (*mapCase[3])(u8* text, u64 size, u32 first);
};

/// The sets.
extern SKernels const PlainKernels;
extern SKernels const SSE2Kernels;
extern SKernels const AVX2Kernels;
extern SKernels const AVX512Kernels;

/// The plain set until the library is loaded, then the best. Whoever reads an old value gets the same results.
extern constinit std::atomic<SKernels const*> g_chosen;

/// The set in use.
[[nodiscard]] inline SKernels const& Get()
{
    return *g_chosen.load(std::memory_order_relaxed);
}

/// For tests: uses another set from now on; false when the processor has not got it. Not while other threads use text.
bool Force(ELevel level);
/// For tests: the level that this processor is given.
[[nodiscard]] ELevel GetBestLevel();

/// Position of an encoding in the tables.
template <class Rules>
inline constexpr u32 IndexOf = Rules::UnitSize == 1   ? 0
                               : Rules::UnitSize == 2 ? 1
                                                      : 2;

/// Blocks are of this many bytes.
inline constexpr u64 BlockSize = 64;

} // namespace Velmor::TextKernels
