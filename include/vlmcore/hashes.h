/// \file
/// Checksums and hashes.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/types.h>

namespace Velmor {

/// CRC-32 of IEEE 802.3, reflected, without inversion before or after: pass 0xFFFFFFFF and invert for the standard
/// value.
[[nodiscard]] VLM_API unsigned int GetCRC32(void const* data, u64 size, unsigned int crc);

/// FNV-1a from the caller's hash, then as if `zeroBytes` zero bytes followed.
[[nodiscard]] VLM_API unsigned int GetFNV32(void const* data, u64 size, u64 zeroBytes, unsigned int hash);
[[nodiscard]] VLM_API u64 GetFNV64(void const* data, u64 size, u64 zeroBytes, u64 hash);

} // namespace Velmor
