#include "TestHeap.h"
#include "support/CountingHooks.h"

#include <vlmcore/containers.h>

#include <gtest/gtest.h>

#include <map>
#include <memory_resource>
#include <string>
#include <vector>

using namespace Velmor;
using Velmor::Test::CCountingHooks;

namespace {

Memory::SStatistics GetStatistics()
{
    Memory::SStatistics statistics{};
    EXPECT_TRUE(Memory::GetStatistics(statistics));
    return statistics;
}

// Counts its objects, and throws from the n-th copy on when told to.
struct SCounted {
    SCounted() { ++alive; }
    explicit SCounted(int number) : value(number) { ++alive; }
    SCounted(SCounted const& other) : value(other.value)
    {
        if (copiesUntilThrow > 0 && --copiesUntilThrow == 0)
            throw 5;
        ++alive;
    }
    SCounted& operator=(SCounted const&) = default;
    ~SCounted() { --alive; }

    int value = 0;
    static inline int alive = 0;
    static inline int copiesUntilThrow = 0;
};

// A heap on hooks that fail on demand, instead of the program's.
class FailingHeap : public ::testing::Test {
protected:
    void SetUp() override
    {
        Memory::Deinitialize();
        CCountingHooks::Reset();
        CCountingHooks::Initialize(EHeapFlag::Passthrough);
    }
    void TearDown() override
    {
        CCountingHooks::FailFrom(0);
        Memory::Deinitialize();
        EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u);
        Memory::Initialize(0, 0);
    }
};

} // namespace

// ---- TVector ----

TEST(Vector, GrowsByHalf)
{
    TVector<int, 1> vector;
    EXPECT_EQ(vector.GetCount(), 0u);
    EXPECT_EQ(vector.GetCapacity(), 0u);
    EXPECT_EQ(vector.GetData(), nullptr);
    std::vector<u64> capacities;
    for (int index = 0; index < 30; ++index) {
        vector.Append(index);
        if (capacities.empty() || capacities.back() != vector.GetCapacity())
            capacities.push_back(vector.GetCapacity());
    }
    EXPECT_EQ(capacities, (std::vector<u64>{4, 8, 12, 18, 27, 40}));
    for (int index = 0; index < 30; ++index)
        EXPECT_EQ(vector[static_cast<u64>(index)], index);
}

TEST(Vector, HoldsPointerCountCapacityAndGrowth)
{
    EXPECT_EQ(sizeof(TVector<int, 1>), 32u);
}

TEST(Vector, AppendsItsOwnElements)
{
    TVector<std::string> vector;
    vector.Append("a text that is too long for any small buffer");
    for (int index = 0; index < 20; ++index)
        vector.Append(vector[0]);
    for (std::string const& text : vector)
        EXPECT_EQ(text, "a text that is too long for any small buffer");
}

TEST(Vector, RemovesInOrder)
{
    TVector<std::string> vector;
    for (char const* const text : {"a", "b", "c", "d"})
        vector.Append(text);
    vector.RemoveAt(1);
    ASSERT_EQ(vector.GetCount(), 3u);
    EXPECT_EQ(vector[0], "a");
    EXPECT_EQ(vector[1], "c");
    EXPECT_EQ(vector[2], "d");
    vector.RemoveAt(2);
    vector.RemoveAt(0);
    EXPECT_EQ(vector[0], "c");
    vector.Clear();
    EXPECT_TRUE(vector.IsEmpty());
    EXPECT_EQ(vector.GetCapacity(), 4u);
}

TEST(Vector, ResizesWithFreshValues)
{
    TVector<int> vector;
    vector.Resize(3);
    EXPECT_EQ(vector.GetCount(), 3u);
    for (int const value : vector)
        EXPECT_EQ(value, 0);
    vector[0] = 5;
    vector.Resize(1);
    vector.Resize(2);
    EXPECT_EQ(vector[0], 5);
    EXPECT_EQ(vector[1], 0);
}

TEST(Vector, ManySmallResizesTakeLinearTime)
{
    // Exact room at every step would copy 9 TB.
    TVector<u32> vector;
    for (u64 count = 1; count <= 1500000; ++count) {
        vector.Resize(count);
        vector[count - 1] = static_cast<u32>(count);
    }
    EXPECT_EQ(vector[0], 1u);
    EXPECT_EQ(vector[1499999], 1500000u);
    TVector<u32> exact;
    exact.Resize(1000);
    EXPECT_EQ(exact.GetCapacity(), 1000u); // the first size is the one that is meant
    exact.Resize(1001);
    EXPECT_EQ(exact.GetCapacity(), 1500u);
    exact.Resize(5000);
    EXPECT_EQ(exact.GetCapacity(), 5000u);
}

namespace {

/// Throws at the construction of the given number.
struct SThrowing {
    static inline int alive = 0;
    static inline int throwAt = 0;

    SThrowing()
    {
        if (alive == throwAt)
            throw 1;
        ++alive;
    }
    SThrowing(SThrowing&&) noexcept { ++alive; }
    ~SThrowing() { --alive; }
};

} // namespace

TEST(Vector, AResizeTakesExactlyWhatItNeedsWhereMoreIsRefused)
{
    Memory::Deinitialize();
    Memory::Initialize(0, 3500000);
    {
        TVector<u8> vector;
        vector.Resize(1500000);
        vector.Resize(1500001); // 2,250,000 would pass the budget
        EXPECT_EQ(vector.GetCapacity(), 1500001u);
        EXPECT_THROW(vector.Resize(2500000), CBadAllocation);
        EXPECT_EQ(vector.GetCount(), 1500001u);
    }
    Memory::Deinitialize();
    Memory::Initialize(0, 0);
}

TEST(Vector, AResizeWhoseConstructorThrowsChangesNothing)
{
    SThrowing::throwAt = 100;
    {
        TVector<SThrowing> vector;
        vector.Resize(3);
        SThrowing::throwAt = 7;
        EXPECT_THROW(vector.Resize(20), int);
        EXPECT_EQ(vector.GetCount(), 3u);
        EXPECT_EQ(SThrowing::alive, 3);
    }
    EXPECT_EQ(SThrowing::alive, 0);
}

TEST(Vector, CopiesAndMoves)
{
    {
        TVector<SCounted> one;
        for (int index = 0; index < 10; ++index)
            one.Append(SCounted(index));
        EXPECT_EQ(SCounted::alive, 10);
        TVector<SCounted> two = one;
        EXPECT_EQ(SCounted::alive, 20);
        EXPECT_EQ(two[9].value, 9);
        TVector<SCounted> three = std::move(one);
        EXPECT_EQ(SCounted::alive, 20);
        EXPECT_EQ(one.GetCount(), 0u);
        EXPECT_EQ(three[9].value, 9);
        one = two;
        EXPECT_EQ(SCounted::alive, 30);
        TVector<SCounted>& same = one;
        one = same;
        one = std::move(same);
        EXPECT_EQ(one.GetCount(), 10u);
        two = std::move(three);
        EXPECT_EQ(SCounted::alive, 20);
    }
    EXPECT_EQ(SCounted::alive, 0);
}

TEST(Vector, AnElementThatThrowsLeavesItWhole)
{
    {
        TVector<SCounted> vector;
        for (int index = 0; index < 4; ++index)
            vector.Append(SCounted(index));
        EXPECT_EQ(vector.GetCapacity(), 4u);
        SCounted const fifth(4);
        for (int failing = 1; failing <= 5; ++failing) {
            SCounted::copiesUntilThrow = failing;
            EXPECT_THROW(vector.Append(fifth), int);
            SCounted::copiesUntilThrow = 0;
            ASSERT_EQ(vector.GetCount(), 4u);
            EXPECT_EQ(vector.GetCapacity(), 4u);
            for (int index = 0; index < 4; ++index)
                EXPECT_EQ(vector[static_cast<u64>(index)].value, index);
        }
        SCounted::copiesUntilThrow = 3;
        EXPECT_THROW(TVector<SCounted>{vector}, int);
        SCounted::copiesUntilThrow = 0;
    }
    EXPECT_EQ(SCounted::alive, 0);
}

TEST(Vector, DrawsFromTheKindOfItsAlignment)
{
    TVector<char, 1> plain;
    TVector<char, 4> four;
    TVector<char, 8> eight;
    TVector<char, 16> sixteen;
    struct alignas(16) SWide {
        char bytes[16];
    };
    TVector<SWide, 1> wide;
    plain.Append('a');
    four.Append('a');
    eight.Append('a');
    sixteen.Append('a');
    wide.Append(SWide{});
    EXPECT_EQ(Memory::GetHeap(plain.GetData()), EHeap::Pool);
    EXPECT_EQ(Memory::GetHeap(four.GetData()), EHeap::Pool4);
    EXPECT_EQ(Memory::GetHeap(eight.GetData()), EHeap::Pool8);
    EXPECT_EQ(Memory::GetHeap(sixteen.GetData()), EHeap::Pool16);
    EXPECT_EQ(Memory::GetHeap(wide.GetData()), EHeap::Pool16);
}

TEST(Vector, RefusesCountsOutOfTheWorld)
{
    TVector<u64> vector;
    vector.Append(5);
    EXPECT_THROW(vector.Reserve(~u64{0}), std::bad_alloc);
    EXPECT_THROW(vector.Reserve(u64{1} << 61), std::bad_alloc);
    EXPECT_THROW(vector.Resize(~u64{0} / 8 + 2), std::bad_alloc);
    EXPECT_EQ(vector.GetCount(), 1u);
    EXPECT_EQ(vector[0], 5u);
}

TEST_F(FailingHeap, AVectorThatCannotGrowKeepsItsElements)
{
    TVector<std::string> vector;
    for (char const* const text : {"a", "b", "c", "d"})
        vector.Append(text);
    CCountingHooks::FailFrom(1);
    EXPECT_THROW(vector.Append("e"), std::bad_alloc);
    EXPECT_THROW(vector.Reserve(100), std::bad_alloc);
    EXPECT_THROW(vector.Resize(5), std::bad_alloc);
    EXPECT_THROW(TVector<std::string>{vector}, std::bad_alloc);
    ASSERT_EQ(vector.GetCount(), 4u);
    EXPECT_EQ(vector[3], "d");
}

// ---- TUniquePtr ----

TEST(UniquePtr, OwnsOneObject)
{
    {
        TUniquePtr<SCounted> owner(Memory::New<SCounted>(EHeap::Pool, 3));
        EXPECT_EQ(owner->value, 3);
        EXPECT_EQ(SCounted::alive, 1);
        TUniquePtr<SCounted> other = std::move(owner);
        EXPECT_FALSE(owner);
        EXPECT_EQ((*other).value, 3);
        other = TUniquePtr<SCounted>(Memory::New<SCounted>(EHeap::Pool, 4));
        EXPECT_EQ(SCounted::alive, 1);
        TUniquePtr<SCounted>& same = other;
        other = std::move(same);
        EXPECT_EQ(other->value, 4);
        SCounted* const detached = other.Detach();
        EXPECT_EQ(other.Get(), nullptr);
        EXPECT_EQ(SCounted::alive, 1);
        other.Reset(detached);
        other.Reset();
        EXPECT_EQ(SCounted::alive, 0);
        other.Reset(Memory::New<SCounted>(EHeap::Pool, 5));
    }
    EXPECT_EQ(SCounted::alive, 0);
}

// ---- TDelegate ----

TEST(Delegate, IsEmptyByDefault)
{
    TDelegate<int(int)> delegate;
    EXPECT_FALSE(delegate);
    delegate = [](int value) { return value + 1; };
    EXPECT_TRUE(delegate);
    EXPECT_EQ(delegate(1), 2);
    delegate = nullptr;
    EXPECT_FALSE(delegate);
}

TEST(Delegate, HoldsUpTo32BytesWithoutAllocating)
{
    u64 const before = GetStatistics().pools[3].allocationCount;
    u64 one = 1;
    u64 two = 2;
    u64 three = 3;
    u64 four = 4;
    TDelegate<u64()> const delegate = [a = &one, b = &two, c = &three, d = &four] { return *a + *b + *c + *d; };
    EXPECT_EQ(delegate(), 10u);
    TDelegate<u64()> const copy = delegate;
    EXPECT_EQ(copy(), 10u);
    EXPECT_EQ(GetStatistics().pools[3].allocationCount, before);
}

TEST(Delegate, LargerCallablesLiveInThePool)
{
    u64 const live = GetStatistics().pools[3].liveCount;
    {
        std::string const text = "a text that is too long for any small buffer";
        TDelegate<std::string()> first = [text, more = u64{5}] { return text + std::to_string(more); };
        EXPECT_EQ(GetStatistics().pools[3].liveCount, live + 1);
        TDelegate<std::string()> second = first;
        EXPECT_EQ(GetStatistics().pools[3].liveCount, live + 2);
        TDelegate<std::string()> third = std::move(first);
        EXPECT_FALSE(first);
        EXPECT_EQ(GetStatistics().pools[3].liveCount, live + 2);
        EXPECT_EQ(second(), text + "5");
        EXPECT_EQ(third(), text + "5");
        second = third;
        TDelegate<std::string()>& same = third;
        third = same;
        third = std::move(same);
        EXPECT_EQ(third(), text + "5");
    }
    EXPECT_EQ(GetStatistics().pools[3].liveCount, live);
}

TEST(Delegate, DestroysWhatItHolds)
{
    {
        TDelegate<int()> delegate = [counted = SCounted(9)] { return counted.value; };
        EXPECT_EQ(delegate(), 9);
        EXPECT_EQ(SCounted::alive, 1);
        TDelegate<int()> const copy = delegate;
        EXPECT_EQ(SCounted::alive, 2);
        delegate.Reset();
        EXPECT_EQ(SCounted::alive, 1);
    }
    EXPECT_EQ(SCounted::alive, 0);
}

namespace {

int Double(int value)
{
    return 2 * value;
}

} // namespace

TEST(Delegate, TakesFunctionsAndReferences)
{
    TDelegate<int(int)> const function = &Double;
    EXPECT_EQ(function(4), 8);
    TDelegate<void(int&)> const changing = [](int& value) { ++value; };
    int number = 1;
    changing(number);
    EXPECT_EQ(number, 2);
    TDelegate<void(int)> const dropping = &Double; // the result is of no interest
    dropping(3);
}

TEST(Delegate, OfANullPointerIsEmpty)
{
    int (*nothing)(int) = nullptr;
    TDelegate<int(int)> delegate = nothing;
    EXPECT_FALSE(delegate);
    delegate = Double;
    EXPECT_TRUE(delegate);
    EXPECT_EQ(delegate(4), 8);
    delegate = nothing;
    EXPECT_FALSE(delegate);
    // Of another signature, too.
    TDelegate<void(int)> const other = delegate;
    EXPECT_FALSE(other);
    delegate = [](int value) { return value; };
    TDelegate<long(int)> const filled = delegate;
    EXPECT_EQ(filled(5), 5);
}

TEST_F(FailingHeap, ADelegateThatCannotAllocateThrows)
{
    std::string const text(100, 'x');
    TDelegate<u64()> delegate = [] { return u64{7}; };
    CCountingHooks::FailFrom(1);
    auto const large = [text, padding = u64{1}] { return text.size() + padding; };
    EXPECT_THROW(delegate = TDelegate<u64()>(large), std::bad_alloc);
    EXPECT_EQ(delegate(), 7u);
}

// ---- Standard containers ----

TEST(Allocator, StandardContainersDrawFromTheChosenKind)
{
    Memory::SStatistics const before = GetStatistics();
    {
        std::vector<int, TAllocator<int>> numbers;
        std::map<int, int, std::less<>, TAllocator<std::pair<int const, int>, EHeap::Pool8>> table;
        std::basic_string<char, std::char_traits<char>, TAllocator<char, EHeap::General>> text(200, 'x');
        for (int index = 0; index < 100; ++index) {
            numbers.push_back(index);
            table[index] = index * index;
        }
        EXPECT_EQ(Memory::GetHeap(numbers.data()), EHeap::Pool);
        EXPECT_EQ(Memory::GetHeap(text.data()), EHeap::General);
        EXPECT_EQ(GetStatistics().pools[2].liveCount, before.pools[2].liveCount + 100);
        EXPECT_EQ(table[9], 81);
    }
    EXPECT_EQ(GetStatistics().pools[2].liveCount, before.pools[2].liveCount);
    EXPECT_EQ(GetStatistics().pools[0].liveCount, before.pools[0].liveCount);
}

TEST(Allocator, AlignmentIsNeverLessThanTheTypes)
{
    struct alignas(16) SWide {
        char bytes[16];
    };
    EXPECT_EQ((TAllocator<SWide, EHeap::Pool>::Kind), EHeap::Pool16);
    EXPECT_EQ((TAllocator<SWide, EHeap::General>::Kind), EHeap::Pool16);
    EXPECT_EQ((TAllocator<u64, EHeap::Pool4>::Kind), EHeap::Pool8);
    EXPECT_EQ((TAllocator<int, EHeap::Pool4>::Kind), EHeap::Pool4);
    EXPECT_EQ((TAllocator<u64, EHeap::Pool>::Kind), EHeap::Pool);
}

TEST(Allocator, RefusesWhatCannotBe)
{
    TAllocator<u64> allocator;
    EXPECT_THROW(static_cast<void>(allocator.allocate(~std::size_t{0})), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(allocator.allocate((~std::size_t{0} >> 3) + 2)), std::bad_alloc);
    u64* const none = allocator.allocate(0);
    EXPECT_NE(none, nullptr);
    allocator.deallocate(none, 0);
    EXPECT_TRUE(allocator == TAllocator<int>());
}

TEST(Allocator, PolymorphicContainersDrawFromTheChosenKind)
{
    Memory::SStatistics const before = GetStatistics();
    CMemoryResource resource(EHeap::Pool4);
    {
        std::pmr::vector<int> numbers(&resource);
        for (int index = 0; index < 100; ++index)
            numbers.push_back(index);
        EXPECT_EQ(Memory::GetHeap(numbers.data()), EHeap::Pool4);
        std::pmr::vector<u64> wide(&resource);
        wide.push_back(1);
        EXPECT_EQ(Memory::GetHeap(wide.data()), EHeap::Pool8);
    }
    EXPECT_EQ(GetStatistics().pools[1].liveCount, before.pools[1].liveCount);
    EXPECT_THROW(static_cast<void>(resource.allocate(8, 32)), std::bad_alloc);
    void* const aligned = resource.allocate(8, 16);
    EXPECT_EQ(reinterpret_cast<u64>(aligned) % 16, 0u);
    resource.deallocate(aligned, 8, 16);
    CMemoryResource const other;
    EXPECT_TRUE(resource == other);
    EXPECT_FALSE(resource == *std::pmr::new_delete_resource());
}
