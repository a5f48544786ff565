#include "Core_MemoryChunkMap.h"
#include "Core_MemoryHeap.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <vector>

using namespace Velmor;

namespace {

u64 requestsLeft = 0;
u64 liveRequests = 0;

constexpr SMemoryHooks Hooks{[](u64 size) -> void* {
                                 if (requestsLeft == 0)
                                     return nullptr;
                                 --requestsLeft;
                                 ++liveRequests;
                                 return std::malloc(size);
                             },
                             nullptr,
                             [](void* block) {
                                 --liveRequests;
                                 std::free(block);
                             }};

class ChunkMap : public ::testing::Test {
protected:
    void SetUp() override
    {
        requestsLeft = ~u64{0};
        liveRequests = 0;
    }
    void TearDown() override
    {
        m_map->Release(Hooks);
        EXPECT_EQ(liveRequests, 0u);
    }

    // Chunks at addresses that are never looked into.
    CChunkRecords* Make(u64 start, u32 blockBits, u32 blockCount)
    {
        constexpr u64 Alignment = CChunkRecords::Alignment;
        m_memory.push_back(std::make_unique<u8[]>(CChunkRecords::GetByteCount(blockCount) + Alignment));
        u64 const memory = (reinterpret_cast<u64>(m_memory.back().get()) + Alignment - 1) & ~(Alignment - 1);
        return CChunkRecords::Create(reinterpret_cast<void*>(memory), reinterpret_cast<void*>(start), blockBits,
                                     blockCount, EHeap::Pool8);
    }
    CChunkRecords* Add(u64 start, u32 blockBits, u32 blockCount)
    {
        CChunkRecords* const chunk = Make(start, blockBits, blockCount);
        EXPECT_TRUE(m_map->Add(Hooks, *chunk));
        return chunk;
    }

    CChunkRecords* FindChunk(u64 address) const
    {
        CChunkMap::SFound const found = m_map->Find(address);
        return found.record != nullptr ? &m_map->GetChunk(found) : nullptr;
    }

    std::unique_ptr<CChunkMap> m_map = std::make_unique<CChunkMap>();
    std::vector<std::unique_ptr<u8[]>> m_memory;
};

TEST_F(ChunkMap, FindsEachBlockAtItsFirstByteOnly)
{
    for (u32 const blockBits : {3u, 6u, 10u}) {
        u32 const blockCount = blockBits == 10 ? 16 : 256;
        u64 const start = (u64{1} << 32) + (u64{blockBits} << 24) + 0x1238;
        CChunkRecords* const chunk = Add(start, blockBits, blockCount);
        u64 const size = u64{1} << blockBits;
        for (u64 index = 0; index < blockCount; ++index) {
            CChunkMap::SFound const found = m_map->Find(start + index * size);
            ASSERT_EQ(found.record, chunk->GetRecords() + index) << blockBits;
            ASSERT_EQ(&m_map->GetChunk(found), chunk);
            ASSERT_EQ(found.tag.GetBlockBits(), blockBits);
            ASSERT_EQ(found.tag.GetKind(), EHeap::Pool8);
            ASSERT_EQ(m_map->Find(start + index * size + 1).record, nullptr);
            ASSERT_EQ(m_map->Find(start + index * size + size / 2).record, nullptr);
        }
        EXPECT_EQ(m_map->Find(start - size).record, nullptr);
        EXPECT_EQ(m_map->Find(start + blockCount * size).record, nullptr);
    }
}

TEST_F(ChunkMap, KnowsNothingOfOtherAddresses)
{
    Add(0x7000'0000'1000, 6, 256);
    for (u64 const address : {u64{0}, u64{8}, u64{0x7000'0000'0000}, u64{0x7FFF'FFFF'FFFF}, u64{1} << 47, ~u64{0},
                              ~u64{0} - 63, u64{0x0123'4567'89AB'CDE0}})
        EXPECT_EQ(m_map->Find(address).record, nullptr) << std::hex << address;
}

TEST_F(ChunkMap, NeighboursInOneGranuleAreToldApart)
{
    // As close as a system's allocator puts them: 16 bytes between.
    CChunkRecords* const first = Add(0x5000'0010, 6, 256);
    CChunkRecords* const second = Add(0x5000'4020, 6, 256);
    CChunkRecords* const third = Add(0x5000'8030, 3, 256);
    CChunkRecords* const fourth = Add(0x5000'8840, 3, 256);
    EXPECT_EQ(FindChunk(0x5000'3FD0), first);
    EXPECT_EQ(m_map->Find(0x5000'4010).record, nullptr);
    EXPECT_EQ(FindChunk(0x5000'4020), second);
    EXPECT_EQ(m_map->Find(0x5000'8028).record, nullptr);
    EXPECT_EQ(FindChunk(0x5000'8030), third);
    EXPECT_EQ(FindChunk(0x5000'8828), third);
    EXPECT_EQ(FindChunk(0x5000'8840), fourth);
    m_map->Remove(*second);
    EXPECT_EQ(FindChunk(0x5000'3FD0), first);
    EXPECT_EQ(m_map->Find(0x5000'4020).record, nullptr);
    EXPECT_EQ(FindChunk(0x5000'8030), third);
    m_map->Remove(*third);
    EXPECT_EQ(m_map->Find(0x5000'8030).record, nullptr);
    EXPECT_EQ(FindChunk(0x5000'8840), fourth);
}

// Parts of the tree that have one shortcut between them: the first one takes it, the others are found without.
TEST_F(ChunkMap, FarApartChunksDoNotHideEachOther)
{
    struct {
        u64 distance; // of leaves that share a shortcut
        u32 blockBits;
        u32 blockCount;
    } const trees[] = {{u64{1} << 31, 6, 256}, {u64{1} << 29, 3, 256}};
    u64 start = 0x1000'0000'1230;
    for (auto const& [distance, blockBits, blockCount] : trees) {
        CChunkRecords* const first = Add(start, blockBits, blockCount);
        EXPECT_EQ(FindChunk(start + distance), nullptr);
        CChunkRecords* const second = Add(start + distance, blockBits, blockCount);
        EXPECT_EQ(FindChunk(start), first);
        EXPECT_EQ(FindChunk(start + distance), second);
        EXPECT_EQ(FindChunk(start + 2 * distance), nullptr);
        // Bits that no address has.
        EXPECT_EQ(FindChunk(start + (u64{1} << 47)), nullptr);
        EXPECT_EQ(FindChunk(start | u64{1} << 63), nullptr);
        m_map->Remove(*first);
        EXPECT_EQ(FindChunk(start), nullptr);
        EXPECT_EQ(FindChunk(start + distance), second);
        start += u64{1} << 40;
    }
}

TEST_F(ChunkMap, IsEmptyAfterItsRelease)
{
    CChunkRecords* const large = Add(0x7000'0000'1000, 6, 256);
    CChunkRecords* const small = Add(0x7100'0000'1000, 3, 256);
    m_map->Release(Hooks);
    EXPECT_EQ(liveRequests, 0u);
    EXPECT_EQ(m_map->Find(0x7000'0000'1000).record, nullptr);
    EXPECT_EQ(m_map->Find(0x7100'0000'1000).record, nullptr);
    EXPECT_TRUE(m_map->Add(Hooks, *large));
    EXPECT_TRUE(m_map->Add(Hooks, *small));
    EXPECT_EQ(FindChunk(0x7000'0000'1000), large);
    EXPECT_EQ(FindChunk(0x7100'0000'1000), small);
}

TEST_F(ChunkMap, SmallChunksAndThoseBeyondTheAddressSpaceAreRefused)
{
    EXPECT_FALSE(m_map->Add(Hooks, *Make(0x10000, 3, 4)));
    EXPECT_FALSE(m_map->Add(Hooks, *Make(0x10000, 3, 255)));
    EXPECT_TRUE(m_map->Add(Hooks, *Make(0x10000, 3, 256)));
    EXPECT_FALSE(m_map->Add(Hooks, *Make((u64{1} << 47) - 64, 6, 256)));
    EXPECT_EQ(m_map->Find((u64{1} << 47) - 64).record, nullptr);
}

TEST_F(ChunkMap, WithoutMemoryForTheTreeItStaysAsItWas)
{
    // Two chunks on both sides of a leaf's end: the tree needs two leaves for the second.
    u64 const leafEnd = u64{1} << 40;
    CChunkRecords* const before = Add(leafEnd - 0x8000, 6, 256);
    for (u64 requests = 0; requests < 2; ++requests) {
        requestsLeft = requests;
        EXPECT_FALSE(m_map->Add(Hooks, *Make(leafEnd - 0x2000, 6, 256))) << requests;
        EXPECT_EQ(m_map->Find(leafEnd - 0x2000).record, nullptr);
        EXPECT_EQ(m_map->Find(leafEnd).record, nullptr);
        EXPECT_EQ(FindChunk(leafEnd - 0x8000), before);
    }
    requestsLeft = 2;
    CChunkRecords* const across = Add(leafEnd - 0x2000, 6, 256);
    EXPECT_EQ(FindChunk(leafEnd - 0x2000), across);
    EXPECT_EQ(FindChunk(leafEnd + 0x1FC0), across);
}

// Against a sorted list of the chunks, through random additions and removals.
TEST_F(ChunkMap, AgreesWithASortedListOfChunks)
{
    std::mt19937_64 random(7);
    std::map<u64, CChunkRecords*> chunks;
    auto const findPlainly = [&](u64 address) -> CChunkRecords::Record* {
        auto const after = chunks.upper_bound(address);
        if (after == chunks.begin())
            return nullptr;
        auto const& [start, chunk] = *std::prev(after);
        u64 const size = u64{1} << chunk->GetBlockBits();
        bool const isBlock = address < chunk->GetEnd() && (address - start) % size == 0;
        return isBlock ? chunk->GetRecords() + (address - start) / size : nullptr;
    };
    u64 end = 0x6000'0000;
    std::vector<u64> starts;
    for (u32 round = 0; round < 4000; ++round) {
        if (starts.empty() || random() % 3 != 0) {
            u32 const blockBits = 3 + static_cast<u32>(random() % 8);
            u64 const start = end + 16 + random() % 64 * 8;
            chunks[start] = Add(start, blockBits, blockBits <= 6 ? 256 : 16384u >> blockBits);
            end = chunks[start]->GetEnd();
            starts.push_back(start);
        }
        else {
            u64 const index = random() % starts.size();
            m_map->Remove(*chunks[starts[index]]);
            chunks.erase(starts[index]);
            starts.erase(starts.begin() + static_cast<i64>(index));
        }
        for (u32 look = 0; look < 50; ++look) {
            u64 const address = 0x6000'0000 + random() % (end - 0x6000'0000 + 4096) / 8 * 8;
            ASSERT_EQ(m_map->Find(address).record, findPlainly(address)) << std::hex << address;
        }
    }
}

// ---- Free blocks ----

std::vector<u64> Take(CFreeChunks& chunks, u32 wanted, u32 home = 0)
{
    std::vector<u64> taken;
    chunks.Take(wanted, home, [&](u64 address, CChunkRecords::Record*) { taken.push_back(address); });
    return taken;
}

TEST_F(ChunkMap, AFreeBlockComesWithItsRecord)
{
    CChunkRecords& chunk = *Make(0x4000'0010, 6, 256);
    CFreeChunks chunks;
    for (u64 const index : {200u, 0u, 64u, 255u})
        chunks.Add(chunk, 0x4000'0010 + 64 * index);
    std::vector<i64> places;
    chunks.Take(4, 0, [&](u64, CChunkRecords::Record* record) { places.push_back(record - chunk.GetRecords()); });
    EXPECT_EQ(places, (std::vector<i64>{0, 64, 200, 255}));
}

TEST_F(ChunkMap, FreeBlocksOfAChunkAreTakenLowestAddressFirst)
{
    CChunkRecords& chunk = *Make(0x4000'0010, 6, 256);
    CFreeChunks chunks;
    EXPECT_TRUE(chunks.IsEmpty());
    for (u64 const index : {200u, 3u, 64u, 255u, 0u, 63u})
        chunks.Add(chunk, 0x4000'0010 + 64 * index);
    EXPECT_EQ(chunk.GetFreeCount(), 6u);
    EXPECT_EQ(Take(chunks, 3), (std::vector<u64>{0x4000'0010, 0x4000'00D0, 0x4000'0FD0}));
    EXPECT_EQ(chunk.GetFreeCount(), 3u);
    chunks.Add(chunk, 0x4000'0010);
    EXPECT_EQ(Take(chunks, 256), (std::vector<u64>{0x4000'0010, 0x4000'1010, 0x4000'3210, 0x4000'3FD0}));
    EXPECT_TRUE(chunks.IsEmpty());
    EXPECT_TRUE(Take(chunks, 1).empty());
}

TEST_F(ChunkMap, EveryBlockOfAChunkCanBeFreeAtOnce)
{
    for (u32 const blockCount : {4u, 16u, 63u, 64u, 65u, 100u, 256u}) {
        CChunkRecords& chunk = *Make(0x4000'0000, 10, blockCount);
        CFreeChunks chunks;
        EXPECT_FALSE(chunk.IsWhollyFree());
        for (u64 index = blockCount; index > 0; --index)
            chunks.Add(chunk, 0x4000'0000 + 1024 * (index - 1));
        EXPECT_TRUE(chunk.IsWhollyFree());
        // The records beside the bits are not touched.
        for (u64 index = 0; index < blockCount; ++index)
            EXPECT_EQ(chunk.GetRecords()[index].load(), 0u);
        std::vector<u64> expected;
        for (u64 index = 0; index < blockCount; ++index)
            expected.push_back(0x4000'0000 + 1024 * index);
        EXPECT_EQ(Take(chunks, blockCount + 1), expected);
        EXPECT_EQ(chunk.GetFreeCount(), 0u);
    }
}

TEST_F(ChunkMap, ChunksAreEmptiedInTheOrderInWhichTheyGotFreeBlocks)
{
    CChunkRecords& first = *Make(0x4000'0000, 6, 256);
    CChunkRecords& second = *Make(0x3000'0000, 6, 256);
    CChunkRecords& third = *Make(0x5000'0000, 6, 256);
    CFreeChunks chunks;
    chunks.Add(first, 0x4000'0040);
    chunks.Add(second, 0x3000'0000);
    chunks.Add(third, 0x5000'0000);
    chunks.Add(first, 0x4000'0000);
    EXPECT_EQ(Take(chunks, 3), (std::vector<u64>{0x4000'0000, 0x4000'0040, 0x3000'0000}));
    // A chunk that was emptied comes last.
    chunks.Add(first, 0x4000'0080);
    EXPECT_EQ(Take(chunks, 9), (std::vector<u64>{0x5000'0000, 0x4000'0080}));
}

TEST_F(ChunkMap, EachHomeHasItsOwnChunksFirst)
{
    constexpr u32 LastHome = CFreeChunks::HomeCount - 1;
    CChunkRecords& ours = *Make(0x4000'0000, 6, 256);
    CChunkRecords& theirs = *Make(0x3000'0000, 6, 256);
    CChunkRecords& others = *Make(0x5000'0000, 6, 256);
    ours.SetHome(LastHome);
    theirs.SetHome(3);
    others.SetHome(7);
    CFreeChunks chunks;
    chunks.Add(theirs, 0x3000'0000);
    chunks.Add(theirs, 0x3000'0040);
    chunks.Add(theirs, 0x3000'0080);
    chunks.Add(others, 0x5000'0000);
    chunks.Add(ours, 0x4000'0000);
    chunks.Add(ours, 0x4000'0040);
    EXPECT_EQ(Take(chunks, 1, LastHome), (std::vector<u64>{0x4000'0000}));
    EXPECT_EQ(Take(chunks, 9, LastHome), (std::vector<u64>{0x4000'0040})) << "not those of others as well";
    EXPECT_EQ(Take(chunks, 2, LastHome), (std::vector<u64>{0x3000'0000, 0x3000'0040})) << "when there are no own ones";
    // The chunk is still theirs, whoever gives a block back.
    EXPECT_EQ(theirs.GetHome(), 3u);
    chunks.Add(theirs, 0x3000'0000);
    EXPECT_EQ(Take(chunks, 9, 3), (std::vector<u64>{0x3000'0000, 0x3000'0080}));
    EXPECT_EQ(Take(chunks, 9, 3), (std::vector<u64>{0x5000'0000}));
    EXPECT_TRUE(chunks.IsEmpty());
    EXPECT_TRUE(Take(chunks, 9, 3).empty());
}

TEST_F(ChunkMap, AChunkThatNobodyUsesMovesToWhoTakesFromIt)
{
    CFreeChunks chunks;
    CChunkRecords* all[2];
    for (u64 number = 0; number < 2; ++number) {
        all[number] = Make(0x4000'0000 + 0x10000 * number, 10, 16);
        all[number]->SetHome(3);
        for (u64 index = 0; index < 16; ++index)
            chunks.Add(*all[number], all[number]->GetStart() + 1024 * index);
    }
    EXPECT_EQ(Take(chunks, 2, 5), (std::vector<u64>{0x4000'0000, 0x4000'0400}));
    EXPECT_EQ(all[0]->GetHome(), 5u);
    EXPECT_EQ(all[1]->GetHome(), 3u);
    EXPECT_EQ(Take(chunks, 1, 3), (std::vector<u64>{0x4001'0000}));
    EXPECT_EQ(Take(chunks, 100, 5).size(), 14u) << "the rest of its own";
    EXPECT_EQ(Take(chunks, 100, 5).size(), 15u) << "then what is left of the other";
    EXPECT_EQ(all[1]->GetHome(), 3u);
    EXPECT_TRUE(chunks.IsEmpty());
}

TEST_F(ChunkMap, WhollyFreeChunksLeaveTheQueueAndMayComeBack)
{
    CFreeChunks chunks;
    std::vector<CChunkRecords*> all;
    for (u64 number = 0; number < 5; ++number) {
        all.push_back(Make(0x4000'0000 + 0x10000 * number, 10, 16));
        // The second and the last are wholly free.
        for (u64 index = 0; index < (number % 3 == 1 ? 16 : 15); ++index)
            chunks.Add(*all[number], all[number]->GetStart() + 1024 * index);
    }
    chunks.RemoveWhollyFree();
    EXPECT_EQ(all[1]->GetFreeCount(), 16u);
    EXPECT_EQ(all[4]->GetFreeCount(), 16u);
    std::vector<u64> const left = Take(chunks, 100);
    ASSERT_EQ(left.size(), 45u);
    EXPECT_EQ(left[0], all[0]->GetStart());
    EXPECT_EQ(left[15], all[2]->GetStart());
    EXPECT_EQ(left[30], all[3]->GetStart());
    chunks.RemoveWhollyFree();
    EXPECT_TRUE(chunks.IsEmpty());
    EXPECT_EQ(all[0]->next, nullptr);
    EXPECT_EQ(all[1]->next, nullptr);
}

TEST_F(ChunkMap, WhollyFreeChunksLeaveTheQueuesOfAllHomes)
{
    CFreeChunks chunks;
    for (u32 number = 0; number < 4; ++number) {
        CChunkRecords& chunk = *Make(0x4000'0000 + 0x10000 * u64{number}, 10, 16);
        chunk.SetHome(number % 2 == 0 ? 1 : 30);
        for (u64 index = 0; index < (number < 2 ? 16 : 1); ++index)
            chunks.Add(chunk, chunk.GetStart() + 1024 * index);
    }
    chunks.RemoveWhollyFree();
    EXPECT_EQ(Take(chunks, 100, 30), (std::vector<u64>{0x4003'0000}));
    EXPECT_EQ(Take(chunks, 100, 1), (std::vector<u64>{0x4002'0000}));
    EXPECT_TRUE(chunks.IsEmpty());
}

} // namespace
