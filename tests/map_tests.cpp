#include <gtest/gtest.h>

#include <vlmcore/containers.h>
#include <vlmcore/exceptions.h>

#include "TestHeap.h"
#include "support/ThreadHelpers.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace Velmor;

namespace {

using CIntMap = TMap<u32, u64>;

std::vector<u32> KeysOf(CIntMap const& map)
{
    std::vector<u32> keys;
    for (auto [key, value] : map)
        keys.push_back(key);
    return keys;
}

// The whole tree is walked after every step in debug builds, now and then in others.
#if defined(NDEBUG)
constexpr u64 StepsPerCheck = 97;
#else
constexpr u64 StepsPerCheck = 1;
#endif

} // namespace

TEST(Map, EmptyMapHasNothing)
{
    CIntMap map;
    EXPECT_EQ(map.GetCount(), 0u);
    EXPECT_EQ(map.Find(1), nullptr);
    EXPECT_FALSE(map.Erase(1));
    EXPECT_TRUE(map.begin() == map.end());
    map.Clear();
    map.CheckConsistency();
}

TEST(Map, InsertKeepsTheFirstValueOfAKey)
{
    CIntMap map;
    auto const first = map.Insert(7, u64{70});
    EXPECT_TRUE(first.second);
    auto const second = map.Insert(7, u64{71});
    EXPECT_FALSE(second.second);
    EXPECT_EQ(second.first, first.first);
    EXPECT_EQ(*map.Find(7), 70u);
    EXPECT_EQ(map.GetCount(), 1u);
}

TEST(Map, WalksInAscendingOrder)
{
    CIntMap map;
    for (u32 key : {5u, 1u, 9u, 3u, 7u})
        map.Insert(key, u64{key} * 10);
    EXPECT_EQ(KeysOf(map), (std::vector<u32>{1, 3, 5, 7, 9}));
    for (auto [key, value] : map)
        EXPECT_EQ(value, u64{key} * 10);
}

TEST(Map, EraseLeavesTheOthersWhereTheyAre)
{
    CIntMap map;
    std::vector<u64*> places;
    for (u32 key = 0; key < 64; ++key)
        places.push_back(map.Insert(key, u64{key}).first);
    for (u32 key = 0; key < 64; key += 2) {
        EXPECT_TRUE(map.Erase(key));
        map.CheckConsistency();
    }
    EXPECT_EQ(map.GetCount(), 32u);
    for (u32 key = 1; key < 64; key += 2) {
        EXPECT_EQ(map.Find(key), places[key]);
        EXPECT_EQ(*places[key], key);
    }
}

TEST(Map, ValuesAreDestroyedAndTheirMemoryComesBack)
{
    Memory::SStatistics before{};
    Memory::GetStatistics(before);
    {
        TMap<u32, TVector<u32>> map;
        for (u32 key = 0; key < 100; ++key)
            map.Insert(key).first->Append(key);
        map.Erase(50);
        map.Clear();
        EXPECT_EQ(map.GetCount(), 0u);
        map.Insert(1).first->Append(1); // the destructor's turn
    }
    Memory::SStatistics after{};
    Memory::GetStatistics(after);
    for (int pool = 0; pool < 4; ++pool)
        EXPECT_EQ(after.pools[pool].liveCount, before.pools[pool].liveCount);
}

TEST(Map, MovesAsAWhole)
{
    CIntMap map;
    map.Insert(1, u64{10});
    u64* const place = map.Find(1);
    CIntMap taken(std::move(map));
    EXPECT_EQ(taken.Find(1), place);
    CIntMap assigned;
    assigned.Insert(2, u64{20});
    assigned = std::move(taken);
    EXPECT_EQ(assigned.Find(1), place);
    EXPECT_EQ(assigned.Find(2), nullptr);
    EXPECT_EQ(assigned.GetCount(), 1u);
}

TEST(Map, GetKeyFindsTheKeyOfAValue)
{
    CIntMap map;
    for (u32 key = 0; key < 40; ++key)
        map.Insert(key * 3, u64{key});
    for (u32 key = 0; key < 40; ++key)
        EXPECT_EQ(map.GetKey(*map.Find(key * 3)), key * 3);
}

TEST(Map, KeysNeedOnlyAnOrder)
{
    TMap<std::string, int> map;
    map.Insert("pear", 1);
    map.Insert("apple", 2);
    EXPECT_EQ(*map.Find("apple"), 2);
    EXPECT_EQ(map.Find("plum"), nullptr);
}

TEST(Map, ErrorsCarryTheirFixedLocation)
{
    try {
        Impl::ThrowMapError(535, Impl::MapHierarchyIsBroken);
        FAIL();
    }
    catch (CException const& exception) {
        EXPECT_STREQ(static_cast<char const*>(exception.GetText().GetData()),
                     "include/vlmcore/impl/Core_Map.h(535): TMap hierarchy is broken.");
    }
    EXPECT_STREQ(Impl::MapHierachyIsBroken, "TMap hierachy is broken.");
    EXPECT_STREQ(Impl::MapNodeHasNoParent, "Non-root TMap node has no parent.");
    EXPECT_STREQ(Impl::MapHasInvalidProperties, "TMap element has invalid red/black properties.");
}

// Every order of inserting and erasing seven keys: 5,040 trees, torn down in a different order each.
TEST(Map, EveryOrderOfSevenKeys)
{
    std::vector<u32> order{1, 2, 3, 4, 5, 6, 7};
    u64 permutation = 0;
    do {
        CIntMap map;
        for (u32 key : order) {
            map.Insert(key, u64{key});
            map.CheckConsistency();
        }
        ASSERT_EQ(KeysOf(map), (std::vector<u32>{1, 2, 3, 4, 5, 6, 7}));
        for (u32 step = 0; step < 7; ++step) {
            ASSERT_TRUE(map.Erase(order[(step * 3 + permutation) % 7]));
            map.CheckConsistency();
        }
        ASSERT_EQ(map.GetCount(), 0u);
        ++permutation;
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(permutation, 5040u);
}

TEST(Map, RandomStepsAgreeWithAStandardMap)
{
    std::mt19937 random(20261121);
    CIntMap map;
    std::map<u32, u64> expected;
    u64 const steps = u64{200000} * TestSupport::GetStressFactor();
    for (u64 step = 0; step < steps; ++step) {
        u32 const key = static_cast<u32>(random() % 700);
        switch (random() % 3) {
        case 0: {
            auto const mine = map.Insert(key, step);
            auto const theirs = expected.emplace(key, step);
            ASSERT_EQ(mine.second, theirs.second);
            ASSERT_EQ(*mine.first, theirs.first->second);
            break;
        }
        case 1:
            ASSERT_EQ(map.Erase(key), expected.erase(key) == 1);
            break;
        default: {
            auto const theirs = expected.find(key);
            u64 const* const mine = map.Find(key);
            ASSERT_EQ(mine != nullptr, theirs != expected.end());
            if (mine != nullptr)
                ASSERT_EQ(*mine, theirs->second);
        }
        }
        ASSERT_EQ(map.GetCount(), expected.size());
        if (step % StepsPerCheck == 0)
            map.CheckConsistency();
    }
    auto theirs = expected.begin();
    for (auto [key, value] : map) {
        ASSERT_EQ(key, theirs->first);
        ASSERT_EQ(value, theirs->second);
        ++theirs;
    }
    EXPECT_TRUE(theirs == expected.end());
}
