#include <vlmcore/hashes.h>

namespace Velmor {
namespace {

/// `factor` multiplied by `base` `exponent` times, in as many steps as the exponent has bits.
template <class Word>
constexpr Word MultiplyByPower(Word factor, Word base, u64 exponent)
{
    for (; exponent != 0; exponent >>= 1) {
        if ((exponent & 1) != 0)
            factor *= base;
        base *= base;
    }
    return factor;
}

template <class Word, Word Prime>
Word HashFNV(void const* data, u64 size, u64 zeroBytes, Word hash)
{
    u8 const* const bytes = static_cast<u8 const*>(data);
    for (u64 i = 0; i < size; ++i)
        hash = (hash ^ bytes[i]) * Prime;
    return MultiplyByPower(hash, Prime, zeroBytes);
}

} // namespace

unsigned int GetFNV32(void const* data, u64 size, u64 zeroBytes, unsigned int hash)
{
    return HashFNV<u32, 16777619u>(data, size, zeroBytes, hash);
}

u64 GetFNV64(void const* data, u64 size, u64 zeroBytes, u64 hash)
{
    return HashFNV<u64, 0x100000001B3u>(data, size, zeroBytes, hash);
}

} // namespace Velmor
