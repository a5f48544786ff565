/// \file
/// The ways to compute GetCRC32. All give the same value for every input; tests force each in turn.
#pragma once

#include <vlmcore/types.h>

#include <span>

namespace Velmor::CRC32 {

/// CRC of `size` bytes, continued from `crc`, without inversions.
using Function = u32 (*)(u8 const* data, u64 size, u32 crc);

struct SPath {
    char const* name;
    Function function;
    bool (*isSupported)(); ///< whether this processor can run it
};

/// Every path that was compiled in, from the plain rule to the fastest.
[[nodiscard]] std::span<SPath const> GetPaths();

/// One table, one byte at a time: the rule itself, which the others are measured by.
[[nodiscard]] u32 ComputePlain(u8 const* data, u64 size, u32 crc);

} // namespace Velmor::CRC32
