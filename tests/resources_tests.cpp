// Labels: threads
#include "TestHeap.h"
#include "support/CountingHooks.h"

#include <vlmcore/logging.h>
#include <vlmcore/resources.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>
#include <type_traits>
#include <vector>

using namespace Velmor;

namespace {

u64 GetLiveBlocks()
{
    Memory::SStatistics statistics{};
    EXPECT_TRUE(Memory::GetStatistics(statistics));
    return statistics.pools[0].liveCount;
}

class CNode : public CResource {
public:
    explicit CNode(int* destroyed = nullptr) : m_destroyed(destroyed) {}
    CNode(CNode const&) = delete;
    CNode& operator=(CNode const&) = delete;
    virtual ~CNode()
    {
        if (m_destroyed != nullptr)
            ++*m_destroyed;
        if (ownHandle != nullptr)
            ownHandle->Reset();
    }

    TResourcePtr<CNode> next;
    TResourcePtr<CNode>* ownHandle = nullptr;

private:
    int* m_destroyed;
};

class CDerivedNode : public CNode {
public:
    using CNode::CNode;
    int value = 7;
};

} // namespace

// ---- CResource ----

static_assert(sizeof(TResourcePtr<CNode>) == 8 && sizeof(CBlockStorage) == 16);
static_assert(std::is_same_v<decltype(CResource::DerivedFromCResource), int const>);

TEST(Resource, StartsAtZeroAndCounts)
{
    CResource resource;
    EXPECT_EQ(resource.GetRefCount(), 0);
    resource.Retain();
    resource.Retain();
    EXPECT_EQ(resource.GetRefCount(), 2);
    EXPECT_FALSE(resource.Release());
    EXPECT_EQ(resource.GetRefCount(), 1);
    EXPECT_TRUE(resource.Release());
    EXPECT_EQ(resource.GetRefCount(), 0);
}

TEST(Resource, AssignmentCopiesTheCountAsItStands)
{
    CResource one;
    CResource two;
    one.Retain();
    one.Retain();
    two.Retain();
    EXPECT_EQ(&(two = one), &two);
    EXPECT_EQ(two.GetRefCount(), 2);
    EXPECT_EQ(CResource(one).GetRefCount(), 2);
}

TEST(Resource, IsMarkedAndHoldsTheCountAlone)
{
    EXPECT_EQ(CResource::DerivedFromCResource, 1);
    EXPECT_EQ(sizeof(CResource), 4u);
}

TEST(Resource, ReportsRetainAndReleaseWithTheAddressOfTheCount)
{
    struct CLogger : IMemoryLogger {
        void OnAllocate(void const*, u64) override {}
        void OnFree(void const*) override {}
        void OnRetain(void const* address) override { retained.push_back(address); }
        void OnRelease(void const* address) override { released.push_back(address); }
        std::vector<void const*> retained;
        std::vector<void const*> released;
    } logger;
    CResource resource;
    Memory::InitializeLog(&logger);
    resource.Retain();
    EXPECT_TRUE(resource.Release());
    EXPECT_EQ(Memory::ReleaseLog(), &logger);
    EXPECT_EQ(logger.retained, std::vector<void const*>{&resource});
    EXPECT_EQ(logger.released, std::vector<void const*>{&resource});
}

// ---- TResourcePtr ----

TEST(ResourcePtr, TheLastHandleDestroysAndFrees)
{
    u64 const live = GetLiveBlocks();
    int destroyed = 0;
    {
        TResourcePtr<CNode> const first = MakeResource<CNode>(&destroyed);
        EXPECT_EQ(first->GetRefCount(), 1);
        {
            TResourcePtr<CNode> const second = first;
            EXPECT_EQ(first->GetRefCount(), 2);
            EXPECT_EQ(second.Get(), first.Get());
        }
        EXPECT_EQ(first->GetRefCount(), 1);
        EXPECT_EQ(destroyed, 0);
        EXPECT_EQ(GetLiveBlocks(), live + 1);
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(GetLiveBlocks(), live);
}

TEST(ResourcePtr, MovingKeepsTheCount)
{
    TResourcePtr<CNode> first = MakeResource<CNode>();
    CNode* const object = first.Get();
    TResourcePtr<CNode> second = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_EQ(second.Get(), object);
    EXPECT_EQ(object->GetRefCount(), 1);
}

TEST(ResourcePtr, RawPointersAreRetained)
{
    TResourcePtr<CNode> const first = MakeResource<CNode>();
    TResourcePtr<CNode> const second(first.Get());
    EXPECT_EQ(first->GetRefCount(), 2);
    EXPECT_EQ(&*second, first.Get());
}

TEST(ResourcePtr, AHandleOfADerivedClassConverts)
{
    int destroyed = 0;
    TResourcePtr<CNode> base;
    {
        TResourcePtr<CDerivedNode> const derived = MakeResource<CDerivedNode>(&destroyed);
        EXPECT_EQ(derived->value, 7);
        base = derived;
        EXPECT_EQ(base->GetRefCount(), 2);
    }
    EXPECT_EQ(destroyed, 0);
    base.Reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(base);
    base.Reset();
}

namespace {

/// The resource is not where the object begins.
struct SFront {
    virtual ~SFront() = default;
    u64 filler = 1;
};
class CBehind : public SFront, public CNode {
public:
    using CNode::CNode;
};

} // namespace

TEST(ResourcePtr, HandlesAreEqualThatHoldTheSameObject)
{
    TResourcePtr<CDerivedNode> const derived = MakeResource<CDerivedNode>();
    TResourcePtr<CNode> const first = derived;
    TResourcePtr<CNode> const other = MakeResource<CNode>();
    TResourcePtr<CNode> const none;
    EXPECT_TRUE(first == derived);
    EXPECT_TRUE(first == first.Get());
    EXPECT_TRUE(derived.Get() == first);
    EXPECT_TRUE(first != other);
    EXPECT_TRUE(first != nullptr);
    EXPECT_TRUE(none == nullptr);
    EXPECT_TRUE(nullptr == none);
    EXPECT_FALSE(none == first);
    EXPECT_EQ(first->GetRefCount(), 2) << "a comparison retains nothing for good";
}

TEST(ResourcePtr, FreesAnObjectThatBeginsElsewhere)
{
    u64 const live = GetLiveBlocks();
    int destroyed = 0;
    TResourcePtr<CNode> handle = MakeResource<CBehind>(&destroyed);
    EXPECT_EQ(GetLiveBlocks(), live + 1);
    handle.Reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(GetLiveBlocks(), live);
}

TEST(ResourcePtr, AHeadMayBecomeItsOwnNext)
{
    int destroyed = 0;
    TResourcePtr<CNode> head = MakeResource<CNode>(&destroyed);
    head->next = MakeResource<CNode>(&destroyed);
    head->next->next = MakeResource<CNode>(&destroyed);
    CNode* const second = head->next.Get();
    head = head->next;
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(head.Get(), second);
    EXPECT_EQ(head->GetRefCount(), 1);
    head = std::move(head->next);
    EXPECT_EQ(destroyed, 2);
    head = nullptr;
    EXPECT_EQ(destroyed, 3);
}

TEST(ResourcePtr, AssignmentToItselfIsHarmless)
{
    int destroyed = 0;
    TResourcePtr<CNode> handle = MakeResource<CNode>(&destroyed);
    TResourcePtr<CNode>& same = handle;
    handle = same;
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(handle->GetRefCount(), 1);
    handle = std::move(same);
    EXPECT_EQ(destroyed, 0);
    EXPECT_TRUE(handle);
}

TEST(ResourcePtr, ADyingObjectMayResetItsHandle)
{
    int destroyed = 0;
    TResourcePtr<CNode> handle = MakeResource<CNode>(&destroyed);
    handle->ownHandle = &handle;
    handle.Reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(handle);
}

TEST(ResourcePtr, ThreadsShareAnObject)
{
    int destroyed = 0;
    {
        TResourcePtr<CNode> const shared = MakeResource<CNode>(&destroyed);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread)
            threads.emplace_back([shared] {
                for (int round = 0; round < 10000; ++round) {
                    TResourcePtr<CNode> const copy = shared;
                    ASSERT_GE(copy->GetRefCount(), 2);
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(shared->GetRefCount(), 1);
    }
    EXPECT_EQ(destroyed, 1);
}

// ---- CBlockStorage ----

namespace {

// Bytes between two reservations, to tell one chunk from another.
std::ptrdiff_t GetDistance(void const* from, void const* to)
{
    return static_cast<char const*>(to) - static_cast<char const*>(from);
}

} // namespace

TEST(BlockStorage, TakesTheChunkThatFitsBest)
{
    CBlockStorage storage(1024);
    void* const first = storage.ReserveBytes(1000);
    void* const second = storage.ReserveBytes(100);
    EXPECT_EQ(Memory::GetSize(first), 1024u);
    EXPECT_EQ(Memory::GetSize(second), 1024u);
    EXPECT_EQ(GetDistance(first, storage.ReserveBytes(24)), 1000);
    EXPECT_EQ(GetDistance(second, storage.ReserveBytes(24)), 100);
}

TEST(BlockStorage, TheEarliestChunkWinsATie)
{
    CBlockStorage storage(1024);
    void* const first = storage.ReserveBytes(600);
    void* const second = storage.ReserveBytes(600);
    EXPECT_NE(first, second);
    EXPECT_EQ(GetDistance(first, storage.ReserveBytes(400)), 600);
    EXPECT_EQ(GetDistance(second, storage.ReserveBytes(400)), 600);
}

TEST(BlockStorage, LargeRequestsGetOneBlockMoreThanTheyFill)
{
    CBlockStorage storage(1024);
    void* const large = storage.ReserveBytes(2048);
    EXPECT_EQ(Memory::GetSize(large), 3072u);
    EXPECT_EQ(GetDistance(large, storage.ReserveBytes(1024)), 2048);
    void* const odd = storage.ReserveBytes(1500);
    EXPECT_EQ(Memory::GetSize(odd), 2048u);
}

TEST(BlockStorage, ExactlyOneBlockFillsItsChunk)
{
    CBlockStorage storage(1024);
    void* const block = storage.ReserveBytes(1024);
    EXPECT_EQ(Memory::GetSize(block), 1024u);
    void* const next = storage.ReserveBytes(1);
    EXPECT_EQ(Memory::GetSize(next), 1024u); // a chunk of its own
}

TEST(BlockStorage, TheDefaultBlockSizeIs1024)
{
    CBlockStorage storage;
    EXPECT_EQ(Memory::GetSize(storage.ReserveBytes(1)), 1024u);
}

TEST(BlockStorage, ZeroBytesReserveNothing)
{
    CBlockStorage storage(1024);
    void* const empty = storage.ReserveBytes(0);
    EXPECT_EQ(Memory::GetSize(empty), 1024u); // the first chunk is there
    EXPECT_EQ(storage.ReserveBytes(10), empty);
    static_cast<void>(storage.ReserveBytes(1000));
    void* const other = storage.ReserveBytes(500);
    // The chunk with the fewest bytes left is the first: 14.
    EXPECT_EQ(GetDistance(empty, storage.ReserveBytes(0)), 1010);
    EXPECT_EQ(GetDistance(other, storage.ReserveBytes(500)), 500);
}

TEST(BlockStorage, EveryChoiceIsThatOfALookThroughAllChunks)
{
    struct SChunk {
        char* start;
        u64 used;
        u64 size;
    };
    std::vector<SChunk> chunks;
    CBlockStorage storage(100);
    std::mt19937 random(20240614);
    for (int round = 0; round < 6000; ++round) {
        u64 const size = random() % 8 == 0 ? random() % 250 : random() % 60;
        SChunk* best = nullptr;
        for (SChunk& chunk : chunks)
            if (chunk.size - chunk.used >= size &&
                (best == nullptr || chunk.size - chunk.used < best->size - best->used))
                best = &chunk;
        char* const reserved = static_cast<char*>(storage.ReserveBytes(static_cast<unsigned>(size)));
        if (best == nullptr) {
            chunks.push_back({reserved, 0, size <= 100 ? 100 : 100 * (size / 100 + 1)});
            best = &chunks.back();
            ASSERT_EQ(Memory::GetSize(reserved), best->size) << round;
        }
        ASSERT_EQ(reserved, best->start + best->used) << round;
        best->used += size;
    }
    EXPECT_GT(chunks.size(), 1000u);
}

TEST(BlockStorage, TimeIsLinearInTheReservations)
{
    // A look through all chunks at each, or a table copied for each chunk, would take hours here.
    CBlockStorage storage(64);
    for (unsigned round = 0; round < 1500000; ++round)
        ASSERT_NE(storage.ReserveBytes(33 + round % 30), nullptr);
}

TEST(BlockStorage, StoresCopies)
{
    CBlockStorage storage(16);
    char const text[] = "copied";
    char const* const copy = static_cast<char const*>(storage.StoreCopy(text, sizeof text));
    EXPECT_STREQ(copy, "copied");
    EXPECT_NE(copy, text);
    EXPECT_NE(storage.StoreCopy(nullptr, 0), nullptr);
}

TEST(BlockStorage, ClearFreesEverythingAndKeepsTheBlockSize)
{
    u64 const live = GetLiveBlocks();
    {
        CBlockStorage storage(256);
        for (int index = 0; index < 10; ++index)
            static_cast<void>(storage.ReserveBytes(200));
        EXPECT_EQ(GetLiveBlocks(), live + 11); // ten chunks and the table
        storage.Clear();
        EXPECT_EQ(GetLiveBlocks(), live);
        EXPECT_EQ(Memory::GetSize(storage.ReserveBytes(1)), 256u);
    }
    EXPECT_EQ(GetLiveBlocks(), live);
}

TEST(BlockStorage, SizesNearTheEndOf32BitsAreRefusedNotWrapped)
{
    CBlockStorage storage(0x80000000u);
    EXPECT_THROW(static_cast<void>(storage.ReserveBytes(0xFFFFFFFFu)), std::bad_alloc);
    CBlockStorage other(3);
    EXPECT_THROW(static_cast<void>(other.ReserveBytes(0xFFFFFFFFu)), std::bad_alloc); // the next multiple is 2^32 + 2
}

TEST(BlockStorage, ABlockSizeOfZeroGivesChunksToMeasure)
{
    CBlockStorage storage(0);
    void* const block = storage.ReserveBytes(100);
    EXPECT_EQ(Memory::GetSize(block), 100u);
    std::memset(block, 1, 100);
}

TEST(BlockStorage, OutOfMemoryLeavesItAsItWas)
{
    Memory::Deinitialize();
    using Velmor::Test::CCountingHooks;
    CCountingHooks::Reset();
    CCountingHooks::Initialize(EHeapFlag::Passthrough);
    {
        CBlockStorage storage(64);
        void* const first = storage.StoreCopy("first", 6);
        static_cast<void>(storage.ReserveBytes(50));
        for (u64 const failing : {1u, 2u}) {
            u64 const live = CCountingHooks::GetLiveBlocks();
            CCountingHooks::FailOnce(failing);
            EXPECT_THROW(static_cast<void>(storage.ReserveBytes(60)), std::bad_alloc);
            EXPECT_EQ(CCountingHooks::GetLiveBlocks(), live);
        }
        EXPECT_STREQ(static_cast<char const*>(first), "first");
        EXPECT_EQ(GetDistance(first, storage.ReserveBytes(8)), 56);
    }
    Memory::Deinitialize();
    EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u);
    Memory::Initialize(0, 0);
}
