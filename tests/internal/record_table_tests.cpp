// Where blocks come to lie in the record table of an extended heap: no pattern of addresses that allocators are known
// for makes look-ups long.
#include "Core_MemoryRecords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

using namespace Velmor;

namespace {

// Records that a look-up passes on the way to its own, and that one, for all addresses of the table together.
u64 CountProbes(std::vector<u64> const& addresses)
{
    std::vector<u64> shards[1u << CRecordTable::ShardBits];
    for (u64 const address : addresses)
        shards[Impl::GetRecordShard(address, CRecordTable::ShardBits)].push_back(address);
    u64 probes = 0;
    for (std::vector<u64> const& shard : shards) {
        u32 bits = CRecordShard::FirstBits;
        while (shard.size() > u64{1} << bits)
            bits += CRecordShard::GrowthBits;
        std::vector<u64> chains(u64{1} << bits);
        for (u64 const address : shard)
            probes += ++chains[Impl::GetRecordBucket(address, bits)];
    }
    return probes;
}

std::vector<u64> GetRow(u64 first, u64 distance, u64 count)
{
    std::vector<u64> addresses;
    for (u64 index = 0; index < count; ++index)
        addresses.push_back(first + index * distance);
    return addresses;
}

constexpr u64 HeapStart = 0x7F3A12000010u;

} // namespace

// A block of 2^n bytes takes a header more of most allocators; others give whole pages, or 64 KB.
TEST(RecordTable, BlocksAtRegularDistancesAreFoundSoon)
{
    for (u64 const count : {u64{1000}, u64{10000}, u64{100000}, u64{1000000}})
        for (u32 bits = 4; bits <= 26; ++bits)
            for (u64 const header : {u64{0}, u64{8}, u64{16}, u64{32}, u64{4096}}) {
                u64 const distance = (u64{1} << bits) + header;
                if (count * distance >> 44 != 0)
                    continue;
                EXPECT_LE(CountProbes(GetRow(HeapStart, distance, count)), 6 * count)
                    << count << " blocks, " << distance << " bytes apart";
            }
}

TEST(RecordTable, BlocksAtRandomPlacesAreFoundSoon)
{
    std::mt19937_64 random(1);
    for (u64 const count : {u64{1000}, u64{10000}, u64{100000}, u64{1000000}}) {
        std::vector<u64> near;
        std::vector<u64> inArenas;
        for (u64 index = 0; index < count; ++index) {
            near.push_back(HeapStart + random() % (4 * count) * 16);
            inArenas.push_back(HeapStart + random() % 64 * 0x4000000 + random() % (count / 16) * 48);
        }
        for (std::vector<u64>* const addresses : {&near, &inArenas}) {
            std::sort(addresses->begin(), addresses->end());
            addresses->erase(std::unique(addresses->begin(), addresses->end()), addresses->end());
            EXPECT_LE(CountProbes(*addresses), 2 * addresses->size()) << count;
        }
    }
}

// Else they would wait for each other's locks.
TEST(RecordTable, RegionsAreSpreadOverAllShards)
{
    for (u32 bits = 18; bits <= 36; ++bits) {
        std::vector<u64> counts(1u << CRecordTable::ShardBits);
        for (u64 const address : GetRow(HeapStart, u64{1} << bits, 1024))
            ++counts[Impl::GetRecordShard(address, CRecordTable::ShardBits)];
        EXPECT_LE(*std::max_element(counts.begin(), counts.end()), 24u) << "16 would be even; 2^" << bits;
    }
}
