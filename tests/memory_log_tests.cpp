// Labels: threads
// The memory event log: what is recorded, the two JSON files, threads, failing files.
#include "RecordingFile.h"
#include "StrictJSON.h"
#include "TestHeap.h"
#include "support/ThreadHelpers.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/resources.h>
#include <vlmcore/system.h>
#include <vlmcore/threads.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Velmor;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;
using VlmTest::CRecordingFile;
using VlmTest::CStrictJSON;
using VlmTest::SJSONValue;

using CFileHandle = TResourcePtr<CRecordingFile>;

constexpr char const* Empty = "{ \"Data\": [\n]}\n";

[[nodiscard]] CFileHandle MakeFile(CRecordingFile::OnWrite onWrite = nullptr)
{
    return MakeResource<CRecordingFile>(std::move(onWrite));
}

[[nodiscard]] std::vector<SJSONValue> ParseData(std::string const& content)
{
    SJSONValue const document = CStrictJSON::Parse(content);
    EXPECT_EQ(document.members.size(), 1u);
    return document["Data"].items;
}

[[nodiscard]] std::vector<std::string> SplitLines(std::string const& text)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

[[nodiscard]] std::string ToHex(void const* address)
{
    std::string text;
    for (u64 value = reinterpret_cast<u64>(address); value != 0; value /= 16)
        text.insert(text.begin(), "0123456789ABCDEF"[value % 16]);
    return "0x" + (text.empty() ? "0" : text);
}

[[nodiscard]] void const* FakeAddress(u64 value)
{
    return reinterpret_cast<void const*>(value);
}

/// Both files and a logger on them; the capacities under test are the parameter.
class MemoryLogTest : public testing::TestWithParam<u64> {
protected:
    /// Runs `record` on a logger and destroys it.
    template <class Record>
    void RunLogger(Record record)
    {
        CFileMemoryLogger logger(m_events, m_stacks, GetParam());
        record(logger);
    }

    CFileHandle m_events = MakeFile();
    CFileHandle m_stacks = MakeFile();
};

INSTANTIATE_TEST_SUITE_P(Unbuffered, MemoryLogTest, testing::Values(0));
INSTANTIATE_TEST_SUITE_P(Tight, MemoryLogTest, testing::Values(1, 2));
INSTANTIATE_TEST_SUITE_P(Buffered, MemoryLogTest, testing::Values(1000));

// ---- installing ----

class CCountingMemoryLogger : public IMemoryLogger {
public:
    void OnAllocate(void const* address, u64 size) override
    {
        calls.push_back("allocate " + ToHex(address) + " " + std::to_string(size));
    }
    void OnFree(void const* address) override { calls.push_back("free " + ToHex(address)); }
    void OnRetain(void const* address) override { calls.push_back("retain " + ToHex(address)); }
    void OnRelease(void const* address) override { calls.push_back("release " + ToHex(address)); }

    std::vector<std::string> calls;
};

TEST(MemoryLogInstall, WithoutALoggerNothingHappens)
{
    EXPECT_EQ(Memory::ReleaseLog(), nullptr);
    int counter = 0;
    Memory::LogAllocate(&counter, 4);
    Memory::LogFree(&counter);
    Memory::LogRetain(&counter);
    Memory::LogRelease(&counter);
}

TEST(MemoryLogInstall, ReleaseReturnsTheLoggerOnce)
{
    CCountingMemoryLogger logger;
    Memory::InitializeLog(&logger);
    EXPECT_EQ(Memory::ReleaseLog(), &logger);
    EXPECT_EQ(Memory::ReleaseLog(), nullptr);
}

TEST(MemoryLogInstall, EventsReachTheLogger)
{
    CCountingMemoryLogger logger;
    int counter = 0;
    Memory::InitializeLog(&logger);
    Memory::LogAllocate(&counter, 24);
    Memory::LogFree(&counter);
    Memory::LogRetain(&counter);
    Memory::LogRelease(&counter);
    Memory::ReleaseLog();
    Memory::LogFree(&counter);
    std::string const address = ToHex(&counter);
    EXPECT_THAT(logger.calls, ElementsAre("allocate " + address + " 24", "free " + address, "retain " + address,
                                          "release " + address));
}

TEST(MemoryLogInstall, BlocksOfEveryKindAreReported)
{
    for (EHeap::Type const kind : {EHeap::General, EHeap::Pool, EHeap::Pool4, EHeap::Pool8, EHeap::Pool16}) {
        CCountingMemoryLogger logger;
        logger.calls.reserve(8);
        Memory::InitializeLog(&logger);
        void* const block = Memory::Malloc(40, kind);
        Memory::Free(block);
        Memory::ReleaseLog();
        EXPECT_THAT(logger.calls, ElementsAre("allocate " + ToHex(block) + " 40", "free " + ToHex(block))) << kind;
    }
}

TEST(MemoryLogInstall, HandlesReportRetainAndRelease)
{
    class CThing : public CResource {
    public:
        virtual ~CThing() = default;
    };
    TResourcePtr<CThing> const thing = MakeResource<CThing>();
    CCountingMemoryLogger logger;
    Memory::InitializeLog(&logger);
    TResourcePtr<CThing> second = thing;
    second.Reset();
    Memory::ReleaseLog();
    std::string const counter = ToHex(static_cast<CResource*>(thing.Get()));
    EXPECT_THAT(logger.calls, ElementsAre("retain " + counter, "release " + counter));
}

// ---- the files ----

TEST_P(MemoryLogTest, BothFilesAreDocumentsFromTheStart)
{
    CFileMemoryLogger const logger(m_events, m_stacks, GetParam());
    EXPECT_EQ(m_events->GetContent(), Empty);
    EXPECT_EQ(m_stacks->GetContent(), Empty);
}

TEST_P(MemoryLogTest, ALoggerWithoutEventsLeavesEmptyDocuments)
{
    RunLogger([](CFileMemoryLogger&) {});
    EXPECT_EQ(m_events->GetContent(), Empty);
    EXPECT_EQ(m_stacks->GetContent(), Empty);
}

TEST_P(MemoryLogTest, AnEventIsOneLineOfTheDocumentedForm)
{
    u64 const before = static_cast<u64>(System::GetTimeMs());
    Memory::SStatistics statistics;
    RunLogger([&](CFileMemoryLogger& logger) {
        ASSERT_TRUE(Memory::GetStatistics(statistics));
        logger.OnAllocate(FakeAddress(0xBEEF10), 24);
    });
    u64 const after = static_cast<u64>(System::GetTimeMs());

    std::vector<SJSONValue> const events = ParseData(m_events->GetContent());
    ASSERT_EQ(events.size(), 1u);
    SJSONValue const& event = events[0];
    EXPECT_EQ(event.members.size(), 6u);
    EXPECT_GE(event["Timestamp"].GetNumber(), before);
    EXPECT_LE(event["Timestamp"].GetNumber(), after);
    EXPECT_EQ(event["Address"].text, "0xBEEF10");
    EXPECT_EQ(event["Size"].GetNumber(), 24u);
    EXPECT_EQ(event["HeapSize"].GetNumber(), statistics.bytesInUse);
    EXPECT_EQ(event["Event"].text, "alloc");

    EXPECT_EQ(m_events->GetContent(),
              "{ \"Data\": [\n{ \"Timestamp\": " + event["Timestamp"].text +
                  ", \"Address\": \"0xBEEF10\", \"Size\": 24, \"HeapSize\": " + event["HeapSize"].text +
                  ", \"Event\": \"alloc\", \"CSHash\": " + event["CSHash"].text + " }\n]}\n");
}

TEST_P(MemoryLogTest, EveryEventHasItsNameAndOnlyAllocationsHaveASize)
{
    RunLogger([](CFileMemoryLogger& logger) {
        logger.OnAllocate(FakeAddress(1), 10);
        logger.OnFree(FakeAddress(2));
        logger.OnRetain(FakeAddress(3));
        logger.OnRelease(nullptr);
    });
    std::vector<std::string> texts;
    for (SJSONValue const& event : ParseData(m_events->GetContent()))
        texts.push_back(event["Event"].text + " " + event["Address"].text + " " + event["Size"].text);
    EXPECT_THAT(texts, ElementsAre("alloc 0x1 10", "free 0x2 0", "retain 0x3 0", "release 0x0 0"));
}

TEST_P(MemoryLogTest, TheFirstLineBeginsWithABraceEveryLaterOneWithAComma)
{
    RunLogger([](CFileMemoryLogger& logger) {
        for (u64 address = 1; address <= 100; ++address)
            logger.OnFree(FakeAddress(address));
    });
    std::vector<std::string> const lines = SplitLines(m_events->GetContent());
    ASSERT_EQ(lines.size(), 102u);
    EXPECT_EQ(lines[0], "{ \"Data\": [");
    EXPECT_THAT(lines[1], StartsWith("{ \"Timestamp\": "));
    for (std::size_t line = 2; line <= 100; ++line)
        EXPECT_THAT(lines[line], StartsWith(",{ \"Timestamp\": "));
    EXPECT_EQ(lines[101], "]}");
    EXPECT_THAT(m_events->GetContent(), EndsWith(" }\n]}\n"));
}

TEST_P(MemoryLogTest, EventsOfOneThreadKeepTheirOrder)
{
    RunLogger([](CFileMemoryLogger& logger) {
        for (u64 address = 1; address <= 500; ++address)
            logger.OnFree(FakeAddress(address));
    });
    u64 expected = 1;
    for (SJSONValue const& event : ParseData(m_events->GetContent()))
        EXPECT_EQ(event["Address"].text, ToHex(FakeAddress(expected++)));
    EXPECT_EQ(expected, 501u);
}

[[gnu::noinline]] void RecordHere(CFileMemoryLogger& logger, u64 count)
{
    for (u64 index = 0; index < count; ++index)
        logger.OnRetain(FakeAddress(index + 1));
}

TEST_P(MemoryLogTest, TwoEventsOfOneCallSiteShareTheirStack)
{
    RunLogger([](CFileMemoryLogger& logger) { RecordHere(logger, 2); });
    std::vector<SJSONValue> const events = ParseData(m_events->GetContent());
    std::vector<SJSONValue> const stacks = ParseData(m_stacks->GetContent());
    ASSERT_EQ(events.size(), 2u);
    ASSERT_EQ(stacks.size(), 1u);
    EXPECT_EQ(events[0]["CSHash"].text, events[1]["CSHash"].text);
    EXPECT_EQ(stacks[0]["CSHash"].text, events[0]["CSHash"].text);
}

TEST_P(MemoryLogTest, EveryEventHasItsStackInTheOtherFile)
{
    RunLogger([](CFileMemoryLogger& logger) {
        logger.OnRetain(FakeAddress(1));
        RecordHere(logger, 3);
        logger.OnRelease(FakeAddress(1));
    });
    std::multiset<std::string> hashes;
    for (SJSONValue const& stack : ParseData(m_stacks->GetContent()))
        hashes.insert(stack["CSHash"].text);
    EXPECT_EQ(hashes.size(), 3u);
    for (SJSONValue const& event : ParseData(m_events->GetContent()))
        EXPECT_EQ(hashes.count(event["CSHash"].text), 1u);
}

TEST_P(MemoryLogTest, AStackHasModuleSymbolFileAndLinePerFrame)
{
    RunLogger([](CFileMemoryLogger& logger) { RecordHere(logger, 1); });
    std::vector<SJSONValue> const stacks = ParseData(m_stacks->GetContent());
    ASSERT_EQ(stacks.size(), 1u);
    EXPECT_EQ(stacks[0].members.size(), 2u);
    std::vector<SJSONValue> const& frames = stacks[0]["Stack"].items;
    ASSERT_GT(frames.size(), 2u);
    for (SJSONValue const& frame : frames) {
        EXPECT_EQ(frame.members.size(), 4u);
        EXPECT_EQ(frame["Module"].kind, SJSONValue::EKind::String);
        EXPECT_EQ(frame["Symbol"].kind, SJSONValue::EKind::String);
        EXPECT_EQ(frame["File"].kind, SJSONValue::EKind::String);
        EXPECT_EQ(frame["Line"].kind, SJSONValue::EKind::Number);
        EXPECT_EQ(frame["Symbol"].text.find("Velmor::CFileMemoryLogger"), std::string::npos);
        EXPECT_EQ(frame["Symbol"].text.find("Velmor::Debug"), std::string::npos);
    }
    // One frame per line, all but the last with a comma; the stack's brackets on lines of their own.
    std::vector<std::string> const lines = SplitLines(m_stacks->GetContent());
    ASSERT_EQ(lines.size(), frames.size() + 4);
    EXPECT_EQ(lines[1], "{ \"CSHash\": " + stacks[0]["CSHash"].text + ", \"Stack\": [");
    for (std::size_t frame = 0; frame < frames.size(); ++frame)
        EXPECT_THAT(lines[frame + 2], EndsWith(frame + 1 < frames.size() ? " }," : " }"));
    EXPECT_EQ(lines[frames.size() + 2], "]}");
    EXPECT_EQ(lines[frames.size() + 3], "]}");
}

TEST_P(MemoryLogTest, WritingStartsWhereTheFilesStand)
{
    m_events->Write("intro", 5);
    RunLogger([](CFileMemoryLogger& logger) { logger.OnFree(FakeAddress(1)); });
    std::string const content = m_events->GetContent();
    EXPECT_EQ(content.substr(0, 5), "intro");
    EXPECT_EQ(ParseData(content.substr(5)).size(), 1u);
}

TEST_P(MemoryLogTest, EmptyHandlesAreDoneWithout)
{
    TResourcePtr<IFile> const none;
    {
        CFileMemoryLogger logger(none, none, GetParam());
        RecordHere(logger, 10);
    }
    {
        CFileMemoryLogger logger(m_events, none, GetParam());
        RecordHere(logger, 10);
    }
    EXPECT_EQ(ParseData(m_events->GetContent()).size(), 10u);
}

TEST_P(MemoryLogTest, DestructionDropsBothFiles)
{
    {
        CFileMemoryLogger const logger(m_events, m_stacks, GetParam());
        EXPECT_GT(m_events->GetRefCount(), 1);
    }
    EXPECT_EQ(m_events->GetRefCount(), 1);
    EXPECT_EQ(m_stacks->GetRefCount(), 1);
}

TEST_P(MemoryLogTest, GivesItsMemoryBack)
{
    Memory::SStatistics before;
    Memory::SStatistics after;
    ASSERT_TRUE(Memory::GetStatistics(before));
    RunLogger([](CFileMemoryLogger& logger) { RecordHere(logger, 50); });
    ASSERT_TRUE(Memory::GetStatistics(after));
    u64 difference = 0;
    for (int pool = 0; pool < 4; ++pool)
        difference += after.pools[pool].liveCount - before.pools[pool].liveCount;
    EXPECT_EQ(difference, 0u);
}

TEST(MemoryLogFiles, PathsAreCreatedAndEmptied)
{
    for (int round = 0; round < 2; ++round) {
        {
            CFileMemoryLogger logger("memory_log_events.json", "memory_log_stacks.json", 16);
            RecordHere(logger, round == 0 ? 100 : 1);
        }
        CNativeFile file("memory_log_events.json", EFileOpen::Read);
        std::string content(file.GetSizeByte(), '\0');
        content.resize(file.Read(content.data(), content.size()));
        EXPECT_EQ(ParseData(content).size(), round == 0 ? 100u : 1u);
    }
}

TEST(MemoryLogFiles, APathThatCannotBeOpenedThrows)
{
    EXPECT_THROW(CFileMemoryLogger("no_such_folder/no_such_folder/a.json", "memory_log_stacks.json", 16),
                 CFileException);
    EXPECT_THROW(CFileMemoryLogger("memory_log_events.json", "no_such_folder/no_such_folder/b.json", 16),
                 CFileException);
}

TEST(MemoryLogFiles, ACapacityBeyondAllMemoryThrows)
{
    CFileHandle const file = MakeFile();
    EXPECT_THROW(CFileMemoryLogger(file, file, ~u64{0}), CBadAllocation);
    EXPECT_THROW(CFileMemoryLogger(file, file, ~u64{0} / 304), CBadAllocation);
    EXPECT_EQ(file->GetRefCount(), 1);
}

// ---- installed ----

TEST_P(MemoryLogTest, RecordsTheAllocationsOfTheProcess)
{
    void* blocks[3];
    {
        CFileMemoryLogger logger(m_events, m_stacks, GetParam());
        Memory::InitializeLog(&logger);
        blocks[0] = Memory::Malloc(100, EHeap::General);
        blocks[1] = Memory::Malloc(20, EHeap::Pool);
        blocks[2] = Memory::Malloc(30, EHeap::Pool16);
        for (void* const block : blocks)
            Memory::Free(block);
        Memory::ReleaseLog();
    }
    std::vector<std::string> texts;
    for (SJSONValue const& event : ParseData(m_events->GetContent()))
        texts.push_back(event["Event"].text + " " + event["Address"].text + " " + event["Size"].text);
    EXPECT_THAT(texts, ElementsAre("alloc " + ToHex(blocks[0]) + " 100", "alloc " + ToHex(blocks[1]) + " 20",
                                   "alloc " + ToHex(blocks[2]) + " 30", "free " + ToHex(blocks[0]) + " 0",
                                   "free " + ToHex(blocks[1]) + " 0", "free " + ToHex(blocks[2]) + " 0"));
}

TEST_P(MemoryLogTest, WritingToMemoryFilesRecordsOnlyTheHost)
{
    // Memory files grow by the memory manager: every write of the logger allocates.
    TResourcePtr<CMemoryFile> const events = MakeResource<CMemoryFile>("events.json");
    TResourcePtr<CMemoryFile> const stacks = MakeResource<CMemoryFile>("stacks.json");
    {
        CFileMemoryLogger logger(events, stacks, GetParam());
        Memory::InitializeLog(&logger);
        for (int round = 0; round < 50; ++round)
            Memory::Free(Memory::Malloc(64, EHeap::Pool8));
        Memory::ReleaseLog();
    }
    auto const getContent = [](CMemoryFile& file) {
        return std::string(static_cast<char const*>(file.GetNativeHandle()), file.GetSizeByte());
    };
    EXPECT_EQ(ParseData(getContent(*events)).size(), 100u);
    EXPECT_FALSE(ParseData(getContent(*stacks)).empty());
}

TEST_P(MemoryLogTest, AFileThatAllocatesAndFreesNeitherRecursesNorBlocks)
{
    auto const allocate = [](u64, u64 size) {
        Memory::Free(Memory::Malloc(size, EHeap::Pool));
        return size;
    };
    m_events = MakeFile(allocate);
    m_stacks = MakeFile(allocate);
    {
        CFileMemoryLogger logger(m_events, m_stacks, GetParam());
        Memory::InitializeLog(&logger);
        for (int round = 0; round < 50; ++round)
            Memory::Free(Memory::Malloc(64, EHeap::Pool8));
        Memory::ReleaseLog();
    }
    EXPECT_EQ(ParseData(m_events->GetContent()).size(), 100u);
}

// ---- threads ----

TEST_P(MemoryLogTest, ThreadsLoseNoEvent)
{
    int const rounds = 200 * static_cast<int>(TestSupport::GetStressFactor());
    constexpr int ThreadCount = 4;
    {
        CFileMemoryLogger logger(m_events, m_stacks, GetParam());
        Memory::InitializeLog(&logger);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < ThreadCount; ++thread) {
            threads.emplace_back([rounds] {
                for (int round = 0; round < rounds; ++round) {
                    void* const block = Memory::Malloc(static_cast<u64>(round % 300) + 1, EHeap::Pool8);
                    Memory::Free(block);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        Memory::ReleaseLog();
    }
    // Every block goes through the states allocated and free in turn, whichever thread has it.
    std::set<std::string> live;
    std::vector<SJSONValue> const events = ParseData(m_events->GetContent());
    EXPECT_EQ(events.size(), static_cast<std::size_t>(rounds) * 2 * ThreadCount);
    for (SJSONValue const& event : events) {
        if (event["Event"].text == "alloc")
            EXPECT_TRUE(live.insert(event["Address"].text).second) << event["Address"].text;
        else
            EXPECT_EQ(live.erase(event["Address"].text), 1u) << event["Address"].text;
    }
    EXPECT_TRUE(live.empty());
}

TEST(MemoryLogThreads, DocumentsAreWholeAtEveryMoment)
{
    std::vector<std::string> snapshots;
    CFileHandle events;
    auto const look = [&](u64 call, u64 size) {
        if (call > 0)
            snapshots.push_back(events->GetContent());
        return size;
    };
    events = MakeFile(look);
    CFileHandle const stacks = MakeFile();
    {
        CFileMemoryLogger logger(events, stacks, 8);
        RecordHere(logger, 300);
    }
    EXPECT_GT(snapshots.size(), 10u);
    for (std::string const& snapshot : snapshots)
        EXPECT_NO_THROW(static_cast<void>(ParseData(snapshot)));
    EXPECT_EQ(ParseData(events->GetContent()).size(), 300u);
}

TEST(MemoryLogThreads, NoWriteButTheLastOfAPageLeavesItsPage)
{
    constexpr u64 Page = 4096;
    u64 position = 0;
    u64 crossings = 0;
    CFileHandle const events = MakeFile([&](u64 call, u64 size) {
        u64 const end = position + size;
        crossings += position / Page != (end - 1) / Page ? 1 : 0;
        // A write that crosses holds one event and the trailer.
        if (position / Page != (end - 1) / Page)
            EXPECT_LT(size, 200u);
        EXPECT_LE(size, Page);
        position = call == 0 ? size - 3 : end - 3;
        return size;
    });
    {
        CFileMemoryLogger logger(events, MakeFile(), 5000);
        RecordHere(logger, 5000);
    }
    EXPECT_EQ(ParseData(events->GetContent()).size(), 5000u);
    EXPECT_GT(crossings, 50u);
    // One a page, and now and then a second, where the trailer alone reached over.
    EXPECT_LE(crossings, events->GetSizeByte() / Page * 11 / 10);
    EXPECT_LT(events->GetCallCount(), 3 * (events->GetSizeByte() / Page) + 100);
}

TEST(MemoryLogThreads, ReleasingWhileOthersAllocateThrowsNothing)
{
    class CIdleMemoryLogger : public IMemoryLogger {
    public:
        void OnAllocate(void const*, u64) override {}
        void OnFree(void const*) override {}
        void OnRetain(void const*) override {}
        void OnRelease(void const*) override {}
    } logger;
    std::atomic<bool> goesOn{true};
    std::atomic<int> allocated{0};
    std::atomic<int> thrown{0};
    std::thread allocating([&] {
        for (; goesOn; ++allocated) {
            try {
                Memory::Free(Memory::Malloc(64, EHeap::Pool8));
            }
            catch (...) {
                ++thrown;
            }
        }
    });
    while (allocated < 200000) {
        Memory::InitializeLog(&logger);
        EXPECT_EQ(Memory::ReleaseLog(), &logger);
    }
    goesOn = false;
    allocating.join();
    EXPECT_EQ(thrown, 0);
}

// ---- files that fail ----

[[nodiscard]] u64 CountEvents(CRecordingFile const& file)
{
    return ParseData(file.GetContent()).size();
}

TEST(MemoryLogFailure, AShortWriteGoesOn)
{
    CFileHandle const events = MakeFile([](u64, u64 size) { return std::min<u64>(size, 7); });
    CFileHandle const stacks = MakeFile([](u64, u64 size) { return std::min<u64>(size, 7); });
    {
        CFileMemoryLogger logger(events, stacks, 0);
        RecordHere(logger, 10);
    }
    EXPECT_EQ(CountEvents(*events), 10u);
    EXPECT_EQ(CountEvents(*stacks), 1u);
}

TEST(MemoryLogFailure, AnEventThatAFileRefusesIsLostAndTheDocumentStaysWhole)
{
    for (u64 const taken : {0u, 1u, 3u, 50u}) {
        // The third write (the second event) takes a part; what it is asked next it refuses once.
        CFileHandle const events = MakeFile([taken](u64 call, u64 size) -> u64 {
            return call == 2 ? taken : call == 3 && taken != 0 ? 0 : size;
        });
        CFileMemoryLogger logger(events, MakeFile(), 0);
        RecordHere(logger, 2);
        EXPECT_EQ(CountEvents(*events), 1u) << taken;
        RecordHere(logger, 2);
        EXPECT_EQ(CountEvents(*events), 3u) << taken;
    }
}

TEST(MemoryLogFailure, AnEventAtWhichAFileThrowsIsLostAndTheDocumentStaysWhole)
{
    CFileHandle const events = MakeFile([](u64 call, u64 size) -> u64 {
        if (call == 2)
            throw CFileException("full", EFileError::Unknown);
        return size;
    });
    CFileMemoryLogger logger(events, MakeFile(), 0);
    RecordHere(logger, 4);
    EXPECT_EQ(CountEvents(*events), 3u);
}

TEST(MemoryLogFailure, TheFirstEventMayBeTheLostOne)
{
    CFileHandle const events = MakeFile([](u64 call, u64 size) -> u64 {
        if (call == 1)
            throw std::runtime_error("not now");
        return size;
    });
    CFileMemoryLogger logger(events, MakeFile(), 0);
    RecordHere(logger, 3);
    EXPECT_EQ(CountEvents(*events), 2u);
    EXPECT_THAT(SplitLines(events->GetContent())[1], StartsWith("{ \"Timestamp\""));
}

TEST(MemoryLogFailure, TheOpeningIsTriedAgain)
{
    CFileHandle const events = MakeFile([](u64 call, u64 size) -> u64 {
        if (call < 2)
            throw CFileException("full", EFileError::Unknown);
        return size;
    });
    CFileMemoryLogger logger(events, MakeFile(), 0);
    EXPECT_EQ(events->GetContent(), "");
    RecordHere(logger, 3);
    EXPECT_EQ(CountEvents(*events), 2u);
}

TEST(MemoryLogFailure, ADiskThatIsFullForAWhileLosesOnlyThatWhile)
{
    bool isFull = false;
    CFileHandle const events = MakeFile([&isFull](u64, u64 size) -> u64 { return isFull ? 0 : size; });
    CFileMemoryLogger logger(events, MakeFile(), 0);
    RecordHere(logger, 5);
    isFull = true;
    RecordHere(logger, 5);
    isFull = false;
    RecordHere(logger, 5);
    EXPECT_EQ(CountEvents(*events), 10u);
}

TEST(MemoryLogFailure, FilesThatAlwaysFailStopNobody)
{
    for (u64 const capacity : {0u, 4u}) {
        CFileHandle const throwing = MakeFile([](u64, u64) -> u64 { throw 5; });
        CFileHandle const refusing = MakeFile([](u64, u64) -> u64 { return 0; });
        CFileMemoryLogger logger(throwing, refusing, capacity);
        RecordHere(logger, 100);
    }
}

TEST(MemoryLogFailure, AFullDiskStopsNobody)
{
    try {
        CFileMemoryLogger logger("/dev/full", "/dev/full", 4);
        RecordHere(logger, 100);
    }
    catch (CFileException const&) {
        // A system without this device cannot open it.
    }
}

} // namespace
