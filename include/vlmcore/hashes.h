/// \file
/// Checksums and hashes. None of them is meant against an attacker; all are exact, the same on every processor.
///
/// Threads: any. Errors: none. `data` may be null when `size` is 0. Any alignment of `data` will do.
///
///     u32 const checksum = ~GetCRC32(bytes, byteCount, 0xFFFFFFFF); // the standard CRC-32, as zip and png have it
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/types.h>

namespace Velmor {

/// CRC-32 of IEEE 802.3 (reflected polynomial 0xEDB88320), continued from `crc`, with no inversion before or after:
/// pass 0xFFFFFFFF and invert the result for the standard value; pass a result on to continue it.
/// \param size  bytes; 0 returns `crc` unchanged.
[[nodiscard]] VLM_API unsigned int GetCRC32(void const* data, u64 size, unsigned int crc);

/// FNV-1a of 32 bits, continued from `hash` (the offset basis is the caller's: 0x811C9DC5 is the usual one), then as if
/// `zeroBytes` zero bytes followed the data; any number of them costs next to nothing.
[[nodiscard]] VLM_API unsigned int GetFNV32(void const* data, u64 size, u64 zeroBytes, unsigned int hash);

/// FNV-1a of 64 bits, otherwise as GetFNV32; the usual offset basis is 0xCBF29CE484222325.
[[nodiscard]] VLM_API u64 GetFNV64(void const* data, u64 size, u64 zeroBytes, u64 hash);

} // namespace Velmor
