#include "Core_BlockAllocator.h"

#include <gtest/gtest.h>

using namespace Velmor;

TEST(BlockAllocator, ChunksFillHalfTheLevelOneCache)
{
    struct SCase {
        u64 blockSize;
        u32 unknownCache;
        u32 cacheOf32K;
        u32 cacheOf48K;
    } const cases[] = {{8, 4, 256, 256},   {16, 4, 256, 256}, {32, 4, 256, 256}, {64, 4, 256, 256},
                       {128, 4, 128, 192}, {256, 4, 64, 96},  {512, 4, 32, 48},  {1024, 4, 16, 24}};
    for (SCase const& test : cases) {
        EXPECT_EQ(GetBlocksPerChunk(0, test.blockSize), test.unknownCache);
        EXPECT_EQ(GetBlocksPerChunk(32768, test.blockSize), test.cacheOf32K);
        EXPECT_EQ(GetBlocksPerChunk(49152, test.blockSize), test.cacheOf48K);
    }
    EXPECT_EQ(GetBlocksPerChunk(4096, 1024), 4u);
    EXPECT_EQ(GetBlocksPerChunk(~u64{0}, 8), 256u);
}

TEST(BlockAllocator, ShrinkingInPlaceStopsAt1024Bytes)
{
    using Pool = TBlockAllocator<0>;
    EXPECT_TRUE(Pool::StaysInPlace(5000, 5000));
    EXPECT_TRUE(Pool::StaysInPlace(5000, 4999));
    EXPECT_TRUE(Pool::StaysInPlace(5000, 3977));
    EXPECT_FALSE(Pool::StaysInPlace(5000, 3976));
    EXPECT_FALSE(Pool::StaysInPlace(5000, 5001));
    EXPECT_TRUE(Pool::StaysInPlace(1026, 1025));
    EXPECT_FALSE(Pool::StaysInPlace(1025, 1024));
    EXPECT_FALSE(Pool::StaysInPlace(1024, 1025));
    EXPECT_TRUE(Pool::StaysInPlace(513, 1024));
    EXPECT_FALSE(Pool::StaysInPlace(513, 512));
    EXPECT_FALSE(Pool::StaysInPlace(5000, ~u64{0}));
    EXPECT_TRUE(Pool::StaysInPlace(1, 8));
    EXPECT_FALSE(Pool::StaysInPlace(8, 9));
    EXPECT_TRUE(TBlockAllocator<4>::StaysInPlace(1, 16));
}
