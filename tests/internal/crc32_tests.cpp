// Every way to compute the CRC-32 against the plain rule.
#include "Core_CRC32.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <vector>

using namespace Velmor;

namespace {

/// The polynomial division itself, a bit at a time, from no table.
u32 DivideBitByBit(u8 const* data, u64 size, u32 crc)
{
    for (u64 i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return crc;
}

std::vector<u8> RandomBytes(u64 size, u32 seed)
{
    std::mt19937 generator(seed);
    std::vector<u8> bytes(size);
    for (u8& byte : bytes)
        byte = static_cast<u8>(generator());
    return bytes;
}

template <class Action>
void ForEachPath(Action&& action)
{
    for (CRC32::SPath const& path : CRC32::GetPaths()) {
        SCOPED_TRACE(path.name);
        if (path.isSupported())
            action(path.function);
        else
            std::printf("not on this processor: %s\n", path.name);
    }
}

} // namespace

TEST(CRC32Paths, ThePlainRuleIsTheDivision)
{
    std::vector<u8> const bytes = RandomBytes(300, 1);
    for (u64 size = 0; size <= bytes.size(); ++size)
        ASSERT_EQ(CRC32::ComputePlain(bytes.data(), size, 0x9E3779B9), DivideBitByBit(bytes.data(), size, 0x9E3779B9));
    for (u32 byte = 0; byte < 256; ++byte) {
        u8 const data = static_cast<u8>(byte);
        ASSERT_EQ(CRC32::ComputePlain(&data, 1, 0), DivideBitByBit(&data, 1, 0));
    }
}

TEST(CRC32Paths, ThePlainRuleIsListedFirst)
{
    ASSERT_GE(CRC32::GetPaths().size(), 2u);
    EXPECT_EQ(CRC32::GetPaths()[0].function, CRC32::ComputePlain);
}

TEST(CRC32Paths, EveryLengthAndAlignment)
{
    ForEachPath([](CRC32::Function compute) {
        for (u64 size = 0; size <= 1100; ++size) {
            // Exactly as much memory as the message has: the sanitizer sees every byte read too many.
            std::vector<u8> const bytes = RandomBytes(size, static_cast<u32>(size));
            u32 const start = static_cast<u32>(size * 0x01000193);
            ASSERT_EQ(compute(bytes.data(), size, start), CRC32::ComputePlain(bytes.data(), size, start)) << size;
        }
        std::vector<u8> const bytes = RandomBytes(2200, 2);
        for (u64 offset = 1; offset < 64; ++offset)
            for (u64 size : {15u, 16u, 17u, 63u, 64u, 65u, 255u, 511u, 512u, 513u, 1023u, 2000u})
                ASSERT_EQ(compute(bytes.data() + offset, size, ~0u),
                          CRC32::ComputePlain(bytes.data() + offset, size, ~0u))
                    << offset << " " << size;
    });
}

TEST(CRC32Paths, EverySingleBitCounts)
{
    ForEachPath([](CRC32::Function compute) {
        std::vector<u8> bytes(840, 0);
        for (u64 bit = 0; bit < bytes.size() * 8; ++bit) {
            bytes[bit / 8] = static_cast<u8>(1u << (bit % 8));
            ASSERT_EQ(compute(bytes.data(), bytes.size(), 0), CRC32::ComputePlain(bytes.data(), bytes.size(), 0))
                << bit;
            bytes[bit / 8] = 0;
        }
    });
}

TEST(CRC32Paths, EveryBitOfTheStartCounts)
{
    ForEachPath([](CRC32::Function compute) {
        std::vector<u8> const bytes(700, 0);
        for (u64 size : {0u, 1u, 15u, 16u, 31u, 64u, 100u, 512u, 700u})
            for (u32 bit = 0; bit < 32; ++bit)
                ASSERT_EQ(compute(bytes.data(), size, 1u << bit), CRC32::ComputePlain(bytes.data(), size, 1u << bit));
    });
}

TEST(CRC32Paths, LongMessages)
{
    ForEachPath([](CRC32::Function compute) {
        std::vector<u8> const bytes = RandomBytes(1 << 18, 3);
        std::mt19937 generator(4);
        for (int i = 0; i < 40; ++i) {
            u64 const offset = generator() % 1000;
            u64 const size = generator() % (bytes.size() - offset);
            ASSERT_EQ(compute(bytes.data() + offset, size, 1), CRC32::ComputePlain(bytes.data() + offset, size, 1))
                << offset << " " << size;
        }
    });
}
