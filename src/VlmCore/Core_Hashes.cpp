#include <vlmcore/hashes.h>

#include <array>

namespace Velmor {
namespace {

constexpr std::array<u32, 256> MakeTable()
{
    std::array<u32, 256> table{};
    for (u32 i = 0; i < 256; ++i) {
        u32 value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) != 0 ? (value >> 1) ^ 0xEDB88320u : value >> 1;
        table[i] = value;
    }
    return table;
}

constexpr std::array<u32, 256> Table = MakeTable();

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

unsigned int GetCRC32(void const* data, u64 size, unsigned int crc)
{
    u8 const* const bytes = static_cast<u8 const*>(data);
    for (u64 i = 0; i < size; ++i)
        crc = Table[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

unsigned int GetFNV32(void const* data, u64 size, u64 zeroBytes, unsigned int hash)
{
    return HashFNV<u32, 16777619u>(data, size, zeroBytes, hash);
}

u64 GetFNV64(void const* data, u64 size, u64 zeroBytes, u64 hash)
{
    return HashFNV<u64, 0x100000001B3u>(data, size, zeroBytes, hash);
}

} // namespace Velmor
