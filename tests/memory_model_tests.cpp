// Random requests, checked against a plain model of what the memory manager counts, grants and refuses: after every
// step the statistics agree to the byte, whether the heap is small, extended, short of its budget or in passthrough
// mode.
#include "support/CountingHooks.h"

#include <vlmcore/memory.h>
#include <vlmcore/system.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <ostream>
#include <random>
#include <vector>

using namespace Velmor;

namespace {

constexpr u64 HeapObject = 2144;
constexpr u64 RecordsPerChunk = 256;
constexpr u64 RecordChunk = RecordsPerChunk * 24 + 8; // and its place in the table
constexpr u64 LargestPoolBlock = 1024;
constexpr u64 Alignments[4] = {0, 4, 8, 16}; // of kinds 1 to 4

class CModel {
public:
    CModel(bool isPassthrough, u64 budget) : m_isPassthrough(isPassthrough), m_budget(budget != 0 ? budget : ~u64{0})
    {
        System::SCPUInfo info{};
        System::GetCPUInfo(info);
        GrowRecordStore();
        for (u64 pool = 0; pool < 4 && !isPassthrough; ++pool) {
            for (u64 size = pool == 3 ? 16 : 8; size <= LargestPoolBlock; size *= 2)
                m_pools[pool].classes.push_back(
                    {size, std::clamp<u64>(info.cacheSize[0] / 2 / size, 4, RecordsPerChunk), 0, 0});
            // The allocator is itself a block of kind 0.
            CountHookBlock(m_pools[pool].classes.size() * 32 + 24);
            --m_freeRecords;
        }
    }

    /// Whether the request is granted; Enter follows then.
    bool Allocate(u64 size, u32 kind)
    {
        if (IsPooled(kind))
            return AllocateFromPool(kind - 1, size);
        if (!Fits(size + GetHookAlignment(kind))) {
            m_bytes += size;
            return false;
        }
        CountHookBlock(size);
        return true;
    }

    void Enter(void* block, u64 size, u32 kind)
    {
        if (m_freeRecords == 0)
            GrowRecordStore();
        --m_freeRecords;
        m_records[block] = {size, kind};
    }

    void Free(void* block)
    {
        auto const [size, kind] = m_records.at(block);
        if (IsPooled(kind))
            ReleaseToPool(kind - 1, size);
        else {
            m_bytes -= size;
            --m_live;
        }
        Remove(block);
    }

    enum class EResize { Stays, Moves, MayMove, Refused };

    /// What becomes of the block. Entered anew by the caller if it may have moved.
    EResize Resize(void* block, u64 size)
    {
        auto const [oldSize, kind] = m_records.at(block);
        if (!IsPooled(kind)) {
            Remove(block);
            m_bytes -= oldSize;
            bool const fits = Fits(size + GetHookAlignment(kind));
            m_allocations += fits ? 1 : 0;
            m_bytes += size;
            return fits ? EResize::MayMove : EResize::Refused;
        }
        if (StaysInPlace(kind - 1, oldSize, size)) {
            if (oldSize > LargestPoolBlock)
                m_bytes -= oldSize - size;
            m_records[block].size = size;
            return EResize::Stays;
        }
        Remove(block);
        if (!AllocateFromPool(kind - 1, size))
            return EResize::Refused;
        ReleaseToPool(kind - 1, oldSize);
        return EResize::Moves;
    }

    struct SRecord {
        u64 size;
        u32 kind;
    };
    SRecord const& GetRecord(void* block) const { return m_records.at(block); }

    void ExpectSame() const
    {
        Memory::SStatistics statistics{};
        ASSERT_TRUE(Memory::GetStatistics(statistics));
        ASSERT_EQ(statistics.allocationCount, m_allocations);
        ASSERT_EQ(statistics.liveCount, m_live);
        ASSERT_EQ(statistics.bytesInUse, m_bytes);
        ASSERT_EQ(statistics.budget, m_budget);
        for (u64 pool = 0; pool < 4; ++pool) {
            auto const& actual = statistics.pools[pool];
            SPool const& expected = m_pools[pool];
            ASSERT_EQ(actual.allocationCount, expected.allocations) << pool;
            ASSERT_EQ(actual.liveCount, expected.live) << pool;
            ASSERT_EQ(actual.classCount, expected.classes.size()) << pool;
            for (u64 index = 0; index < expected.classes.size(); ++index) {
                ASSERT_EQ(actual.classes[index].blockSize, expected.classes[index].blockSize);
                ASSERT_EQ(actual.classes[index].blocksPerChunk, expected.classes[index].blocksPerChunk);
                ASSERT_EQ(actual.classes[index].chunkCount, expected.classes[index].chunks) << pool << ' ' << index;
            }
        }
    }

private:
    struct SClass {
        u64 blockSize;
        u64 blocksPerChunk;
        u64 chunks;
        u64 freeBlocks;
    };
    struct SPool {
        u64 allocations = 0;
        u64 live = 0;
        std::vector<SClass> classes;
    };

    bool IsPooled(u32 kind) const { return !m_isPassthrough && kind >= 1 && kind <= 4; }
    u64 GetHookAlignment(u32 kind) const
    {
        return m_isPassthrough && kind >= 1 && kind <= 4 ? Alignments[kind - 1] : 0;
    }
    bool Fits(u64 size) const { return m_bytes + size <= m_budget; }

    void CountHookBlock(u64 size)
    {
        ++m_allocations;
        ++m_live;
        m_bytes += size;
    }

    void GrowRecordStore()
    {
        u64 const added = m_recordChunks != 0 ? m_recordChunks : 2;
        m_recordChunks += added;
        m_freeRecords += added * RecordsPerChunk;
        m_bytes += added * RecordChunk;
    }

    void Remove(void* block)
    {
        m_records.erase(block);
        ++m_freeRecords;
    }

    SClass& GetClass(u64 pool, u64 size)
    {
        u64 index = 0;
        while (m_pools[pool].classes[index].blockSize < size)
            ++index;
        return m_pools[pool].classes[index];
    }

    bool StaysInPlace(u64 pool, u64 oldSize, u64 size)
    {
        if (oldSize > LargestPoolBlock)
            return size == oldSize || (size > LargestPoolBlock && size < oldSize && size + 1024 > oldSize);
        return size <= LargestPoolBlock && &GetClass(pool, oldSize) == &GetClass(pool, size);
    }

    bool AllocateFromPool(u64 pool, u64 size)
    {
        if (size > LargestPoolBlock) {
            if (!Fits(size + Alignments[pool]))
                return false;
            CountHookBlock(size + Alignments[pool]);
        }
        else {
            SClass& blocks = GetClass(pool, size);
            if (blocks.freeBlocks == 0) {
                u64 const chunkSize = blocks.blocksPerChunk * blocks.blockSize + Alignments[pool];
                if (!Fits((blocks.chunks + 1) * 8) || !Fits(chunkSize))
                    return false;
                m_allocations += 2; // the chunk, and the table made or resized
                m_live += blocks.chunks == 0 ? 2 : 1;
                m_bytes += chunkSize + 8;
                ++blocks.chunks;
                blocks.freeBlocks = blocks.blocksPerChunk;
            }
            --blocks.freeBlocks;
        }
        ++m_pools[pool].allocations;
        ++m_pools[pool].live;
        return true;
    }

    void ReleaseToPool(u64 pool, u64 size)
    {
        --m_pools[pool].live;
        if (size > LargestPoolBlock) {
            m_bytes -= size + Alignments[pool];
            --m_live;
        }
        else
            ++GetClass(pool, size).freeBlocks;
    }

    bool m_isPassthrough;
    u64 m_budget;
    u64 m_allocations = 0;
    u64 m_live = 0;
    u64 m_bytes = HeapObject;
    u64 m_recordChunks = 0;
    u64 m_freeRecords = 0;
    SPool m_pools[4];
    std::map<void*, SRecord> m_records;
};

struct SRun {
    char const* name;
    bool isPassthrough;
    u64 budget;
    u32 steps;
    u64 blocks; ///< about so many live at a time
};

std::ostream& operator<<(std::ostream& out, SRun const& run)
{
    return out << run.name;
}

// Makes the same requests of the heap and of the model.
class CRandomRequests {
public:
    CRandomRequests(SRun const& run, u32 seed) : m_run(run), m_model(run.isPassthrough, run.budget), m_random(seed) {}

    void Step()
    {
        u32 const choice = Draw(100);
        if (choice < (m_blocks.size() < m_run.blocks ? 60u : 30u))
            Allocate();
        else if (choice < 75)
            Free();
        else if (choice < 97)
            Resize();
        else
            DoNothing();
        m_model.ExpectSame();
    }

    void FreeAll()
    {
        while (!m_blocks.empty())
            Free();
        m_model.ExpectSame();
    }

private:
    u32 Draw(u32 count) { return static_cast<u32>(m_random() % count); }

    u64 DrawSize()
    {
        constexpr u32 Limits[] = {8, 64, 300, 1024, 6000};
        u32 const limit = Draw(6);
        return limit < 5 ? 1 + Draw(Limits[limit]) : 1000 + Draw(60);
    }

    void Fill(void* block, u64 size) { std::memset(block, static_cast<int>(size & 0xFF), size); }

    void ExpectContent(void* block, u64 size, u64 oldSize)
    {
        u8 const* const bytes = static_cast<u8 const*>(block);
        u8 const expected = static_cast<u8>(oldSize & 0xFF);
        u64 const kept = std::min(size, oldSize);
        ASSERT_EQ(std::count(bytes, bytes + kept, expected), static_cast<i64>(kept));
    }

    void Allocate()
    {
        u64 const size = DrawSize();
        u32 const kind = Draw(16);
        bool const isGranted = m_model.Allocate(size, kind % 8);
        void* const block = Memory::Malloc(size, static_cast<EHeap::Type>(kind));
        ASSERT_EQ(block != nullptr, isGranted) << size << " bytes of kind " << kind;
        if (isGranted)
            Enter(block, size, kind % 8);
    }

    void Enter(void* block, u64 size, u32 kind)
    {
        m_model.Enter(block, size, kind);
        m_blocks.push_back(block);
        Fill(block, size);
        ExpectKnown(block, size, kind);
    }

    void ExpectKnown(void* block, u64 size, u32 kind)
    {
        ASSERT_EQ(Memory::GetSize(block), size);
        ASSERT_EQ(Memory::GetHeap(block), static_cast<EHeap::Type>(kind));
        if (kind >= 2 && kind <= 4)
            ASSERT_EQ(reinterpret_cast<u64>(block) % Alignments[kind - 1], 0u);
    }

    // Out of the list; null when there is none.
    void* TakeAny()
    {
        if (m_blocks.empty())
            return nullptr;
        std::swap(m_blocks[Draw(static_cast<u32>(m_blocks.size()))], m_blocks.back());
        void* const block = m_blocks.back();
        m_blocks.pop_back();
        return block;
    }

    void Free()
    {
        if (void* const block = TakeAny()) {
            m_model.Free(block);
            Memory::Free(block);
            ASSERT_EQ(Memory::GetSize(block), 0u);
        }
    }

    void Resize()
    {
        void* const block = TakeAny();
        if (block == nullptr)
            return;
        auto const [oldSize, kind] = m_model.GetRecord(block);
        u64 const size = Draw(3) != 0 ? DrawSize() : oldSize - Draw(static_cast<u32>(std::min<u64>(oldSize, 1100)));
        void* const resized = Memory::Realloc(block, size, static_cast<EHeap::Type>(Draw(8)));
        CModel::EResize const expected = m_model.Resize(block, size);
        if (expected == CModel::EResize::Refused) {
            ASSERT_EQ(resized, nullptr) << oldSize << " to " << size << " bytes of kind " << kind;
            ASSERT_EQ(Memory::GetSize(block), 0u);
            return;
        }
        ASSERT_NE(resized, nullptr) << oldSize << " to " << size << " bytes of kind " << kind;
        ExpectContent(resized, size, oldSize);
        if (expected == CModel::EResize::Stays) {
            ASSERT_EQ(resized, block);
            m_blocks.push_back(block);
            Fill(block, size);
            ExpectKnown(block, size, kind);
            return;
        }
        if (expected == CModel::EResize::Moves)
            ASSERT_NE(resized, block);
        Enter(resized, size, kind);
    }

    void DoNothing()
    {
        int foreign = 0;
        Memory::Free(&foreign);
        ASSERT_EQ(Memory::Realloc(&foreign, 5, EHeap::Pool), nullptr);
        ASSERT_EQ(Memory::GetSize(&foreign), 0u);
        ASSERT_EQ(Memory::GetHeap(&foreign), EHeap::General);
        ASSERT_EQ(Memory::Malloc(0, EHeap::Pool8), nullptr);
    }

    SRun const& m_run;
    CModel m_model;
    std::mt19937 m_random;
    std::vector<void*> m_blocks;
};

class MemoryModel : public ::testing::TestWithParam<SRun> {};

TEST_P(MemoryModel, CountsGrantsAndRefusesTheSame)
{
    SRun const& run = GetParam();
    Velmor::Test::CCountingHooks::Reset();
    for (u32 seed = 1; seed <= 3; ++seed) {
        SCOPED_TRACE(seed);
        Velmor::Test::CCountingHooks::Initialize(run.isPassthrough ? EHeapFlag::Passthrough : 0, run.budget);
        CRandomRequests requests(run, seed);
        for (u32 step = 0; step < run.steps && !HasFatalFailure(); ++step) {
            SCOPED_TRACE(step);
            requests.Step();
        }
        if (!HasFatalFailure())
            requests.FreeAll();
        Memory::Deinitialize();
        EXPECT_EQ(Velmor::Test::CCountingHooks::GetForeignBlocks(), 0u);
        Velmor::Test::CCountingHooks::Reset(); // with the blocks of refused resizes
    }
}

INSTANTIATE_TEST_SUITE_P(Heaps, MemoryModel,
                         ::testing::Values(SRun{"Small", false, 0, 6000, 300}, SRun{"Extended", false, 0, 25000, 6000},
                                           SRun{"Passthrough", true, 0, 15000, 3000},
                                           SRun{"SmallWithBudget", false, 200000, 8000, 400},
                                           SRun{"ExtendedWithBudget", false, 900000, 20000, 4000},
                                           SRun{"PassthroughWithBudget", true, 300000, 8000, 1000}),
                         [](auto const& instance) { return instance.param.name; });

} // namespace
