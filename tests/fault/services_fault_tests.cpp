// Resources, exceptions, threads, the pool, the loggers and the system's modules with every request for memory refused
// in turn: bad_alloc, the object as it was, and every block back at the hooks.
#include "../RecordingFile.h"
#include "../StrictJSON.h"
#include "../support/CountingHooks.h"
#include "../support/ThreadHelpers.h"

#include <vlmcore/vlmcore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

using namespace Velmor;
using TestSupport::CFunctionThread;
using Velmor::Test::CCountingHooks;
using VlmTest::CRecordingFile;
using VlmTest::CStrictJSON;

namespace {

std::string TextOf(CException const& exception)
{
    return static_cast<char const*>(exception.GetText().GetData());
}

class ServiceFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        CCountingHooks::Reset();
        // Without pools every request is one of the hooks, and so can be refused.
        CCountingHooks::Initialize(EHeapFlag::Passthrough);
        Memory::Free(Memory::Malloc(1, EHeap::General)); // the record store is there
    }

    void TearDown() override
    {
        Memory::Deinitialize();
        EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u); // the heap object
        EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    }

    /// Refuses the first request of `attempt`, then the second alone, and so on, until it comes through. Each one
    /// before must throw bad_alloc and keep nothing; `check` is called after it. Returns how many there were.
    template <class Attempt, class Check>
    static int RefuseEach(Attempt const& attempt, Check const& check)
    {
        for (int refused = 0; refused < 200; ++refused) {
            u64 const live = CCountingHooks::GetLiveBlocks();
            CCountingHooks::FailOnce(static_cast<u64>(refused) + 1);
            bool isThrown = false;
            try {
                attempt();
            }
            catch (std::bad_alloc const& exception) {
                isThrown = true;
                EXPECT_STREQ(exception.what(), "bad allocation");
            }
            CCountingHooks::FailFrom(0);
            if (!isThrown)
                return refused;
            EXPECT_EQ(CCountingHooks::GetLiveBlocks(), live) << "request " << refused + 1;
            check();
        }
        ADD_FAILURE() << "it never came through";
        return -1;
    }
    template <class Attempt>
    static int RefuseEach(Attempt const& attempt)
    {
        return RefuseEach(attempt, [] {});
    }
};

class CNode : public CResource {
public:
    explicit CNode(CString const& name) : m_name(name) {}
    virtual ~CNode() = default;

private:
    CMutableString m_name;
};

} // namespace

// ---- resources and exceptions ----

TEST_F(ServiceFaults, AResourceIsMadeOrNot)
{
    EXPECT_EQ(RefuseEach([] { static_cast<void>(MakeResource<CNode>("name")); }), 2); // the object and its text
}

TEST_F(ServiceFaults, ExceptionsAreMadeOrNot)
{
    EXPECT_EQ(RefuseEach([] { CException const exception("%d", 5); }), 1);
    EXPECT_EQ(RefuseEach([] { CFileException const exception("text", EFileError::Corrupt); }), 1);
    CFileException const original("text", EFileError::Corrupt);
    EXPECT_EQ(RefuseEach([&] { CFileException const copy(original); }), 1);
    EXPECT_EQ(RefuseEach([&] { Memory::Delete(original.Clone()); }), 2);
    EXPECT_EQ(RefuseEach([&] { Memory::Delete(static_cast<CException const&>(original).Clone()); }), 2);
    CException const plain("plain");
    EXPECT_EQ(RefuseEach([&] { Memory::Delete(plain.Clone()); }), 2);
}

TEST_F(ServiceFaults, AnAssignedExceptionStaysAsItWas)
{
    CFileException const source("a longer text", EFileError::Corrupt);
    CFileException target("text", EFileError::Denied);
    EXPECT_EQ(RefuseEach([&] { target = source; },
                         [&] {
                             EXPECT_EQ(TextOf(target), "text");
                             EXPECT_EQ(target.GetFileError(), EFileError::Denied);
                         }),
              1);
    EXPECT_EQ(TextOf(target), "a longer text");
    EXPECT_EQ(target.GetFileError(), EFileError::Corrupt);
}

TEST_F(ServiceFaults, BlockStorageStaysAsItWas)
{
    CBlockStorage storage(64);
    auto const* const first = static_cast<char const*>(storage.StoreCopy("first", 6));
    EXPECT_EQ(RefuseEach([&] { static_cast<void>(storage.ReserveBytes(200)); }, [&] { EXPECT_STREQ(first, "first"); }),
              2); // the table and the chunk
    EXPECT_EQ(static_cast<char const*>(storage.ReserveBytes(58)) - first, 6);
}

// ---- threads ----

TEST_F(ServiceFaults, AThreadThatCannotStartIsIdle)
{
    std::atomic<int> runs{0};
    CFunctionThread thread([&] { ++runs; });
    EXPECT_EQ(RefuseEach(
                  [&] {
                      thread.Run();
                      thread.Join();
                  },
                  [&] {
                      EXPECT_FALSE(thread.IsRunning());
                      EXPECT_TRUE(thread.GetStopFlag());
                      EXPECT_EQ(thread.GetThreadId(), 0xFFFFFFFFu);
                  }),
              1);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(RefuseEach(
                  [&] {
                      thread.RunLooped();
                      thread.Join();
                  },
                  [&] { EXPECT_TRUE(thread.GetStopFlag()); }),
              1);
    EXPECT_GE(runs, 2);
}

namespace {

class COwnedJob : public IThreadJob {
public:
    [[nodiscard]] bool AutoDelete() const override { return false; }
    void Execute() override { ++runs; }
    int runs = 0;
};

} // namespace

TEST_F(ServiceFaults, APoolIsMadeOrNot)
{
    EXPECT_EQ(RefuseEach([] { CThreadPool const pool(3); }), 4); // the array and the workers
}

TEST_F(ServiceFaults, AJobIsQueuedOrItsOwners)
{
    COwnedJob job;
    CThreadPool pool(2);
    EXPECT_EQ(RefuseEach(
                  [&] {
                      pool.PushJob(&job);
                      pool.WaitForJobs();
                  },
                  [&] {
                      EXPECT_TRUE(pool.IsEmpty());
                      EXPECT_EQ(job.runs, 0);
                  }),
              1);
    EXPECT_EQ(job.runs, 1);
}

// ---- loggers ----

TEST_F(ServiceFaults, AFileLoggerIsMadeOrNot)
{
    TResourcePtr<IFile> const none;
    EXPECT_EQ(RefuseEach([&] { CFileLogger const logger(none, 0); }), 0);
    EXPECT_EQ(RefuseEach([&] { CFileLogger const logger(none, 64); }), 4); // two buffers, the writer, its start
    EXPECT_GE(RefuseEach([] { CFileLogger const logger("services_fault.log", 0); }), 1);
    EXPECT_GE(RefuseEach([] { CFileLogger const logger("services_fault.log", 64); }), 5);
    EXPECT_EQ(std::remove("services_fault.log"), 0);
}

TEST_F(ServiceFaults, AFileLoggersBuffersAreOfTheSizeAskedFor)
{
    TResourcePtr<IFile> const none;
    u64 const before = CCountingHooks::GetBytes();
    CFileLogger const logger(none, 1'000'000);
    u64 const taken = CCountingHooks::GetBytes() - before;
    EXPECT_GE(taken, 2'000'000u);
    EXPECT_LT(taken, 2'001'000u); // the writer and its start
}

TEST_F(ServiceFaults, ALineIsWrittenOrNot)
{
    std::string const text(5000, 'x'); // short ones need no memory
    std::string const line = "1: [Info] " + text + "\n";
    for (u64 const bufferSize : {0u, 100000u}) {
        TResourcePtr<CRecordingFile> const file = MakeResource<CRecordingFile>();
        {
            CFileLogger logger(file, bufferSize);
            EXPECT_EQ(RefuseEach([&] { logger.Write(Log::EMessage::Info, 1, text.c_str()); }), 1);
        }
        EXPECT_EQ(file->GetContent(), line);
    }
    CConsoleLogger console;
    testing::internal::CaptureStdout();
    EXPECT_EQ(RefuseEach([&] { console.Write(Log::EMessage::Info, 1, text.c_str()); }), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
}

TEST_F(ServiceFaults, ASystemLoggerIsMadeOrNot)
{
    EXPECT_EQ(RefuseEach([] { CSystemLogger const logger; }), 1);
    CSystemLogger logger;
    EXPECT_EQ(RefuseEach([&] { logger.Write(Log::EMessage::Debug, 1, "text"); }), 1);
}

namespace {

class CKeepingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type, u64, CString const& message) override
    {
        texts.emplace_back(static_cast<char const*>(message.GetData()));
    }
    std::vector<std::string> texts;
};

} // namespace

TEST_F(ServiceFaults, AReportIsCutShortAndTheLogGoesOn)
{
    CKeepingLogger logger;
    Log::Initialize(&logger);
    EXPECT_GE(RefuseEach([] { Log::SystemInfo(); }), 6); // a line at least takes one
    EXPECT_GE(RefuseEach([] { Log::Callstack(0); }), 3);
    logger.texts.clear();
    Log::Info("still here");
    EXPECT_EQ(Log::Release(), &logger);
    EXPECT_EQ(logger.texts, (std::vector<std::string>{"still here", "Log end."}));
}

TEST_F(ServiceFaults, AMemoryLoggerIsMadeOrNot)
{
    TResourcePtr<IFile> const none;
    EXPECT_EQ(RefuseEach([&] { CFileMemoryLogger const logger(none, none, 0); }), 3); // the writer and two texts
    EXPECT_EQ(RefuseEach([&] { CFileMemoryLogger const logger(none, none, 8); }), 6); // two buffers, the start
    EXPECT_GE(RefuseEach([] { CFileMemoryLogger const logger("services_fault_e.json", "services_fault_s.json", 8); }),
              8);
    EXPECT_EQ(std::remove("services_fault_e.json"), 0);
    EXPECT_EQ(std::remove("services_fault_s.json"), 0);
}

TEST_F(ServiceFaults, MemoryEventsAreRecordedWithoutMemory)
{
    for (u64 const capacity : {0u, 4u, 1000u}) {
        TResourcePtr<CRecordingFile> const events = MakeResource<CRecordingFile>();
        TResourcePtr<CRecordingFile> const stacks = MakeResource<CRecordingFile>();
        {
            CFileMemoryLogger logger(events, stacks, capacity);
            CCountingHooks::FailFrom(1);
            for (u64 index = 1; index <= 500; ++index)
                logger.OnAllocate(reinterpret_cast<void const*>(index), index);
        }
        CCountingHooks::FailFrom(0);
        // Stacks are the first to be left out.
        EXPECT_EQ(CStrictJSON::Parse(events->GetContent())["Data"].items.size(), 500u) << capacity;
        EXPECT_EQ(CStrictJSON::Parse(stacks->GetContent())["Data"].items.size(), 0u) << capacity;
    }
}

TEST_F(ServiceFaults, AStackWithoutMemoryIsWrittenWithALaterEvent)
{
    TResourcePtr<CRecordingFile> const events = MakeResource<CRecordingFile>();
    TResourcePtr<CRecordingFile> const stacks = MakeResource<CRecordingFile>();
    CFileMemoryLogger logger(events, stacks, 0);
    for (int round = 0; round < 2; ++round) {
        CCountingHooks::FailFrom(round == 0 ? 1 : 0);
        logger.OnFree(&logger);
        CCountingHooks::FailFrom(0);
        EXPECT_EQ(CStrictJSON::Parse(events->GetContent())["Data"].items.size(), round == 0 ? 1u : 2u);
        EXPECT_EQ(CStrictJSON::Parse(stacks->GetContent())["Data"].items.size(), round == 0 ? 0u : 1u);
    }
}

// ---- system ----

TEST_F(ServiceFaults, AModuleIsLoadedOrNot)
{
    auto const load = [](CString const& name) {
        System::FreeLibrary(System::LoadLibrary(name));
        EXPECT_EQ(System::GetLibrary(name), nullptr);
    };
    EXPECT_GE(RefuseEach([&] { load("plugins/render"); }), 1);
    auto const fail = [] {
        try {
            static_cast<void>(System::LoadLibrary("no/such/module"));
            ADD_FAILURE();
        }
        catch (CException const& exception) {
            EXPECT_EQ(TextOf(exception).find("no\\such\\module."), 0u);
        }
    };
    EXPECT_GE(RefuseEach(fail), 2);
    void* const module = System::LoadLibrary("plugins/render");
    EXPECT_EQ(RefuseEach([&] { EXPECT_NE(System::GetLibraryFunctionPtr(module, "MultiplyBySeven"), nullptr); }), 0);
    EXPECT_GE(RefuseEach([&] { EXPECT_NE(System::GetLibraryFunctionPtr(module, u"MultiplyBySeven"), nullptr); }), 1);
    System::FreeLibrary(module);
}
