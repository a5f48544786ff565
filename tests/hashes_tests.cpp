#include <vlmcore/hashes.h>

#include <gtest/gtest.h>

#include <vector>

using namespace Velmor;

TEST(CRC32, GivesTheStandardValueWhenInvertedBeforeAndAfter)
{
    EXPECT_EQ(~GetCRC32("123456789", 9, 0xFFFFFFFF), 0xCBF43926u);
    EXPECT_EQ(~GetCRC32("", 0, 0xFFFFFFFF), 0x00000000u);
    EXPECT_EQ(~GetCRC32("a", 1, 0xFFFFFFFF), 0xE8B7BE43u);
    EXPECT_EQ(~GetCRC32("The quick brown fox jumps over the lazy dog", 43, 0xFFFFFFFF), 0x414FA339u);
}

TEST(CRC32, InvertsNothingItself)
{
    EXPECT_EQ(GetCRC32("123456789", 9, 0xFFFFFFFF), 0x340BC6D9u);
    EXPECT_EQ(GetCRC32("\0\0\0\0", 4, 0), 0u);
    EXPECT_EQ(GetCRC32("\x01", 1, 0), 0x77073096u);
}

TEST(CRC32, OfNothingIsTheValueGiven)
{
    EXPECT_EQ(GetCRC32(nullptr, 0, 0x12345678), 0x12345678u);
    EXPECT_EQ(GetCRC32("abc", 0, 0), 0u);
}

TEST(CRC32, KnowsLongRunsOfEqualBytes)
{
    std::vector<u8> const zeros(1u << 20, 0);
    std::vector<u8> const ones(1u << 20, 0xFF);
    EXPECT_EQ(~GetCRC32(zeros.data(), zeros.size(), 0xFFFFFFFF), 0xA738EA1Cu);
    EXPECT_EQ(~GetCRC32(ones.data(), ones.size(), 0xFFFFFFFF), 0x956BAC74u);
}

TEST(CRC32, ContinuesFromItsResult)
{
    char const text[] = "one message, in two parts of any length whatever";
    u64 const size = sizeof(text) - 1;
    u32 const whole = GetCRC32(text, size, 0xFFFFFFFF);
    EXPECT_EQ(whole, 0x815886CFu);
    for (u64 first = 0; first <= size; ++first)
        EXPECT_EQ(GetCRC32(text + first, size - first, GetCRC32(text, first, 0xFFFFFFFF)), whole) << first;
}

TEST(FNV32, GivesThePublishedValues)
{
    EXPECT_EQ(GetFNV32("", 0, 0, 0x811C9DC5), 0x811C9DC5u);
    EXPECT_EQ(GetFNV32("a", 1, 0, 0x811C9DC5), 0xE40C292Cu);
    EXPECT_EQ(GetFNV32("foobar", 6, 0, 0x811C9DC5), 0xBF9CF968u);
}

TEST(FNV64, GivesThePublishedValues)
{
    EXPECT_EQ(GetFNV64("", 0, 0, 0xCBF29CE484222325), 0xCBF29CE484222325u);
    EXPECT_EQ(GetFNV64("a", 1, 0, 0xCBF29CE484222325), 0xAF63DC4C8601EC8Cu);
    EXPECT_EQ(GetFNV64("foobar", 6, 0, 0xCBF29CE484222325), 0x85944171F73967E8u);
}

TEST(FNV, OfNothingIsTheHashGiven)
{
    EXPECT_EQ(GetFNV32(nullptr, 0, 0, 77), 77u);
    EXPECT_EQ(GetFNV64(nullptr, 0, 0, 77), 77u);
}

TEST(FNV, ZeroBytesEqualHashingThem)
{
    u8 data[64] = {'d', 'a', 't', 'a'};
    for (u64 zeros = 0; zeros <= 60; ++zeros) {
        EXPECT_EQ(GetFNV32(data, 4, zeros, 0x811C9DC5), GetFNV32(data, 4 + zeros, 0, 0x811C9DC5)) << zeros;
        EXPECT_EQ(GetFNV64(data, 4, zeros, 1), GetFNV64(data, 4 + zeros, 0, 1)) << zeros;
    }
    // One zero byte: a multiplication by the prime.
    EXPECT_EQ(GetFNV32("", 0, 1, 3), 3u * 16777619u);
    EXPECT_EQ(GetFNV64("", 0, 1, 3), 3u * 0x100000001B3u);
}

TEST(FNV, AnyNumberOfZeroBytesReturnsAtOnce)
{
    // An odd number to the power 2^30 (2^62) is 1 modulo 2^32 (2^64), so these counts act like their remainders.
    EXPECT_EQ(GetFNV32("x", 1, u64{1} << 63, 5), GetFNV32("x", 1, 0, 5));
    EXPECT_EQ(GetFNV64("x", 1, (u64{1} << 63) + 2, 5), GetFNV64("x", 1, 2, 5));
    EXPECT_EQ(GetFNV64("x", 1, ~u64{0}, 5) * 0x100000001B3u, GetFNV64("x", 1, 0, 5));
}
