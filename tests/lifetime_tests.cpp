// Labels: threads
// The library without a heap: before one is created, and what is left of a host when it is gone. The pools' memory is
// overwritten when they give it back, so that whoever still looks at it is seen.
#include "support/ThreadHelpers.h"

#include <vlmcore/vlmcore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

using namespace Velmor;
using TestSupport::CFunctionThread;
using TestSupport::Eventually;

namespace {

/// Hooks that spoil what they are given back and keep it, so that a late look finds nonsense and not somebody else.
class CSpoilingHooks {
public:
    static void* Malloc(u64 size)
    {
        std::lock_guard const lock(Get().mutex);
        void* const block = std::malloc(size);
        Get().blocks[block] = size;
        return block;
    }

    static void* Realloc(void* block, u64 size)
    {
        void* const moved = Malloc(size);
        if (block == nullptr)
            return moved;
        std::lock_guard const lock(Get().mutex);
        u64 const oldSize = Get().blocks[block];
        std::memcpy(moved, block, oldSize < size ? oldSize : size);
        std::memset(block, 0xDD, oldSize);
        return moved;
    }

    static void Free(void* block)
    {
        std::lock_guard const lock(Get().mutex);
        if (block != nullptr)
            std::memset(block, 0xDD, Get().blocks[block]);
    }

    /// The end of a test; nobody looks any more.
    static void FreeAll()
    {
        for (auto const& [block, size] : Get().blocks)
            std::free(block);
        Get().blocks.clear();
    }

private:
    struct SState {
        std::mutex mutex;
        std::map<void*, u64> blocks;
    };

    static SState& Get()
    {
        static SState& state = *new SState;
        return state;
    }
};

class Lifetime : public ::testing::Test {
protected:
    void SetUp() override
    {
        Memory::Initialize(&CSpoilingHooks::Malloc, &CSpoilingHooks::Realloc, &CSpoilingHooks::Free, 0, 0);
    }
    void TearDown() override
    {
        Memory::Deinitialize();
        CSpoilingHooks::FreeAll();
    }
};

[[nodiscard]] std::string ReadFile(char const* path)
{
    std::string content;
    if (std::FILE* const file = std::fopen(path, "rb")) {
        for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file))
            content.push_back(static_cast<char>(c));
        std::fclose(file);
    }
    return content;
}

[[nodiscard]] bool Contains(std::string const& text, char const* part)
{
    return text.find(part) != std::string::npos;
}

class CNode : public CResource {
public:
    explicit CNode(int& destroyed) : m_destroyed(destroyed) {}
    virtual ~CNode() { ++m_destroyed; }

private:
    int& m_destroyed;
};

} // namespace

// ---- what outlives the heap ----

TEST_F(Lifetime, AHandleLetsGoOfWhatWentWithTheHeap)
{
    int destroyed = 0;
    TResourcePtr<CNode> reset = MakeResource<CNode>(destroyed);
    TResourcePtr<CNode> assigned = MakeResource<CNode>(destroyed);
    {
        TResourcePtr<CNode> const first = MakeResource<CNode>(destroyed);
        TResourcePtr<CNode> const second = first;
        Memory::Deinitialize();
        reset.Reset();
        EXPECT_FALSE(reset);
        assigned = nullptr;
        EXPECT_FALSE(assigned);
    }
    EXPECT_EQ(destroyed, 0);
}

TEST_F(Lifetime, ContainersForgetTheirElements)
{
    int destroyed = 0;
    struct SNoticed {
        explicit SNoticed(int& count) : destroyed(&count) {}
        SNoticed(SNoticed&& other) noexcept : destroyed(std::exchange(other.destroyed, nullptr)) {}
        SNoticed(SNoticed const&) = delete;
        SNoticed& operator=(SNoticed const&) = delete;
        ~SNoticed()
        {
            if (destroyed != nullptr)
                ++*destroyed;
        }
        int* destroyed;
    };
    {
        TVector<SNoticed> small;
        small.Append(SNoticed(destroyed));
        TVector<SNoticed> large; // beyond what a pool holds
        for (int index = 0; index < 1000; ++index)
            large.Append(SNoticed(destroyed));
        TVector<CMutableString, 1> texts;
        texts.Append(CMutableString("a text"));
        TVector<int> numbers;
        numbers.Append(1);
        TMap<int, CMutableString> map;
        for (int key = 0; key < 20; ++key)
            map.Insert(key, CMutableString("a text"));
        TMap<int, CMutableString> target;
        target.Insert(1, CMutableString("another"));
        TUniquePtr<SNoticed> owner(Memory::New<SNoticed>(EHeap::Pool, destroyed));
        TUniquePtr<SNoticed> reset(Memory::New<SNoticed>(EHeap::Pool, destroyed));
        CWeakTypeList list;
        CWeakTypeMap variables;
        for (u32 id = 1; id <= 20; ++id) {
            list[id] = CWeakType("a text");
            variables[id] = CWeakType("a text");
        }
        Memory::Deinitialize();
        reset.Reset();
        EXPECT_FALSE(reset);
        target = std::move(map);
        EXPECT_EQ(target.GetCount(), 20u);
        EXPECT_EQ(map.GetCount(), 0u);
        small = TVector<SNoticed>();
        EXPECT_EQ(small.GetCount(), 0u);
    }
    EXPECT_EQ(destroyed, 0);
}

TEST_F(Lifetime, AFileInAHandleIsLeftAlone)
{
    TResourcePtr<CMemoryFile> file = MakeResource<CMemoryFile>("memory");
    file->Write("content", 7);
    Memory::Deinitialize();
    file.Reset();
    EXPECT_FALSE(file);
}

TEST_F(Lifetime, BlockStorageForgetsItsChunks)
{
    CBlockStorage cleared(64);
    CBlockStorage left(64);
    for (int index = 0; index < 5; ++index) {
        static_cast<void>(cleared.ReserveBytes(60));
        static_cast<void>(left.ReserveBytes(60));
    }
    Memory::Deinitialize();
    cleared.Clear();
    EXPECT_THROW(static_cast<void>(cleared.ReserveBytes(1)), std::bad_alloc);
}

TEST_F(Lifetime, AnExceptionKeepsNothingFromDying)
{
    alignas(CFileException) unsigned char storage[sizeof(CFileException)];
    auto* const exception = ::new (storage) CFileException("text", EFileError::Denied);
    Memory::Deinitialize();
    exception->~CFileException();
}

TEST_F(Lifetime, AThreadRunsOnAndIsJoined)
{
    std::atomic<int> passes{0};
    CFunctionThread thread([&] { ++passes; });
    thread.RunLooped();
    ASSERT_TRUE(Eventually([&] { return passes > 0; }));
    Memory::Deinitialize();
    int const before = passes;
    EXPECT_TRUE(Eventually([&] { return passes > before; }));
    thread.Join();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_THROW(thread.Run(), std::bad_alloc);
    EXPECT_FALSE(thread.IsRunning());
}

TEST_F(Lifetime, AFileLoggerGoesOnAndClosesItsFile)
{
    for (u64 const bufferSize : {0u, 4096u}) {
        {
            CFileLogger logger("lifetime_tests.log", bufferSize);
            logger.Write(Log::EMessage::Info, 1, "before");
            EXPECT_TRUE(Eventually([] { return !ReadFile("lifetime_tests.log").empty(); })); // the thread has begun
            logger.Write(Log::EMessage::Debug, 1, "just");                                   // and is seen to have
            Memory::Deinitialize();
            logger.Write(Log::EMessage::Warning, 2, "behind");
            EXPECT_THROW(logger.Write(Log::EMessage::Info, 3, std::string(5000, 'x').c_str()), std::bad_alloc);
        }
        EXPECT_EQ(ReadFile("lifetime_tests.log"), "1: [Info] before\n1: [Debug] just\n2: [Warning] behind\n");
        EXPECT_EQ(std::remove("lifetime_tests.log"), 0) << "still open";
        SetUp();
    }
}

TEST_F(Lifetime, AMemoryLoggerWritesWhatItTakesAndClosesItsFiles)
{
    for (u64 const capacity : {0u, 16u}) {
        {
            CFileMemoryLogger logger("lifetime_events.json", "lifetime_stacks.json", capacity);
            Memory::InitializeLog(&logger);
            if (capacity == 0) // else its thread would allocate while the heap goes
                Memory::Free(Memory::Malloc(1000, EHeap::Pool));
            Memory::Deinitialize(); // uninstalls it
            EXPECT_EQ(Memory::ReleaseLog(), nullptr);
            logger.OnRetain(&logger);
            logger.OnRelease(&logger);
        }
        std::string const events = ReadFile("lifetime_events.json");
        EXPECT_EQ(Contains(events, "\"Size\": 1000, "), capacity == 0) << events;
        EXPECT_EQ(Contains(events, "\"Event\": \"free\", "), capacity == 0) << events;
        EXPECT_TRUE(Contains(events, "\"Size\": 0, \"HeapSize\": 0, \"Event\": \"retain\", ")) << events;
        EXPECT_TRUE(Contains(events, "\"Size\": 0, \"HeapSize\": 0, \"Event\": \"release\", ")) << events;
        EXPECT_TRUE(Contains(events, " }\n]}\n")) << events;
        EXPECT_TRUE(Contains(ReadFile("lifetime_stacks.json"), "]}\n"));
        EXPECT_EQ(std::remove("lifetime_events.json"), 0) << "still open";
        EXPECT_EQ(std::remove("lifetime_stacks.json"), 0) << "still open";
        SetUp();
    }
}

TEST_F(Lifetime, ASystemLoggerGoes)
{
    CSystemLogger logger;
    logger.Write(Log::EMessage::Info, 0, "before");
    Memory::Deinitialize();
    EXPECT_THROW(logger.Write(Log::EMessage::Info, 0, "behind"), std::bad_alloc);
}

TEST_F(Lifetime, AnIdleThreadPoolGoes)
{
    CThreadPool pool(3); // no thread was started
    Memory::Deinitialize();
}

// ---- before there is a heap ----

TEST(WithoutHeap, WhatNeedsMemoryThrowsBadAllocation)
{
    int destroyed = 0;
    TResourcePtr<IFile> const none;
    EXPECT_THROW(static_cast<void>(MakeResource<CNode>(destroyed)), CBadAllocation);
    EXPECT_THROW(static_cast<void>(CBlockStorage().ReserveBytes(1)), CBadAllocation);
    EXPECT_THROW(CException("text"), CBadAllocation);
    EXPECT_THROW(CFileException("text", EFileError::Denied), CBadAllocation);
    EXPECT_THROW(CThreadPool(1), CBadAllocation);
    EXPECT_THROW(CFunctionThread([] {}).Run(), CBadAllocation);
    EXPECT_THROW(CFunctionThread([] {}).RunLooped(), CBadAllocation);
    EXPECT_THROW(CFileLogger("lifetime_tests.log", 0), CBadAllocation);
    EXPECT_THROW(CFileLogger("lifetime_tests.log", 16), CBadAllocation);
    EXPECT_THROW(CFileLogger(none, 16), CBadAllocation);
    EXPECT_THROW(CSystemLogger(), CBadAllocation);
    EXPECT_THROW(CFileMemoryLogger("lifetime_events.json", "lifetime_stacks.json", 16), CBadAllocation);
    EXPECT_THROW(CFileMemoryLogger(none, none, 0), CBadAllocation);
    EXPECT_THROW(static_cast<void>(System::LoadLibrary("plugins/render")), CBadAllocation);
    EXPECT_EQ(destroyed, 0);
}

TEST(WithoutHeap, OutOfMemoryIsTheStandardExceptionWithItsText)
{
    try {
        CBlockStorage storage;
        static_cast<void>(storage.ReserveBytes(1));
        FAIL();
    }
    catch (std::bad_alloc const& exception) {
        EXPECT_STREQ(exception.what(), "bad allocation");
    }
}

TEST(WithoutHeap, EmptyObjectsComeAndGo)
{
    CBlockStorage storage;
    storage.Clear();
    TResourcePtr<CNode> handle;
    handle.Reset();
    TResourcePtr<CNode> const copy = handle;
    EXPECT_FALSE(copy);
    CResource resource;
    resource.Retain();
    EXPECT_EQ(resource.GetRefCount(), 1);
    EXPECT_TRUE(resource.Release());
    CFunctionThread thread([] {});
    thread.Join();
    EXPECT_FALSE(thread.IsRunning());
}

TEST(WithoutHeap, LocksWork)
{
    CSpinLock plain;
    CRecursiveSpinLock recursive;
    {
        TScopedLock const first(plain);
        TScopedLock const second(recursive);
        TScopedLock const third(recursive);
        EXPECT_FALSE(plain.TryAcquire());
        EXPECT_TRUE(recursive.IsOwned());
    }
    EXPECT_TRUE(plain.TryAcquire());
    EXPECT_FALSE(recursive.IsOwned());
    // Nothing that is thrown can carry a text.
    plain.Release();
    EXPECT_THROW(plain.Release(), std::bad_alloc);
    EXPECT_THROW(recursive.Release(), std::bad_alloc);
}

namespace {

class CKeepingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type type, u64, CString const& message) override
    {
        texts.push_back(std::to_string(type) + " " + static_cast<char const*>(message.GetData()));
    }
    std::vector<std::string> texts;
};

} // namespace

TEST(WithoutHeap, TheLogWorks)
{
    CKeepingLogger logger;
    Log::Initialize(&logger);
    Log::Warning("plain");
    Log::ErrorF("%s %d", "formatted", 5);
    EXPECT_THROW(Log::SystemInfo(), std::bad_alloc);
    EXPECT_THROW(Log::Callstack(0), std::bad_alloc);
    EXPECT_EQ(Log::Release(), &logger);
    EXPECT_EQ(logger.texts, (std::vector<std::string>{"1 Log start.", "2 plain", "3 formatted 5", "1 Log end."}));
}

TEST(WithoutHeap, ShortLinesNeedNoMemory)
{
    testing::internal::CaptureStdout();
    CConsoleLogger console;
    console.Write(Log::EMessage::Info, 1234, u"x");
    EXPECT_THROW(console.Write(Log::EMessage::Info, 1, std::string(5000, 'y').c_str()), std::bad_alloc);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "1234: [Info] x\n");
    CFileLogger unbuffered(TResourcePtr<IFile>(), 0);
    unbuffered.Write(Log::EMessage::Info, 1, "nobody reads this");
}

TEST(WithoutHeap, MemoryEventsReachTheirLogger)
{
    struct CLogger : IMemoryLogger {
        void OnAllocate(void const*, u64 size) override { sum += size; }
        void OnFree(void const*) override { sum += 10; }
        void OnRetain(void const*) override { sum += 100; }
        void OnRelease(void const*) override { sum += 1000; }
        u64 sum = 0;
    } logger;
    Memory::LogAllocate(nullptr, 1); // nobody is there
    Memory::LogFree(nullptr);
    Memory::LogRetain(nullptr);
    Memory::LogRelease(nullptr);
    EXPECT_EQ(Memory::ReleaseLog(), nullptr);
    Memory::InitializeLog(&logger);
    Memory::LogAllocate(nullptr, 1);
    Memory::LogFree(nullptr);
    Memory::LogRetain(nullptr);
    Memory::LogRelease(nullptr);
    EXPECT_EQ(Memory::ReleaseLog(), &logger);
    EXPECT_EQ(logger.sum, 1111u);
}

TEST(WithoutHeap, DiagnosticsWork)
{
    Debug::Print("%s", "nobody listens");
    static_cast<void>(Debug::IsDebuggerPresent());
    Debug::LoadSymbols();
    void* addresses[Debug::MaxFrames];
    unsigned int hash = 0;
    EXPECT_GE(Debug::Backtrace(addresses, &hash), 2);
    EXPECT_NE(hash, 0u);
    Debug::SCallstackLine frames[Debug::MaxFrames];
    EXPECT_GE(Debug::UnwindCallStack(frames, nullptr), 2);
    Debug::SetAssertHandler([](char const*, long line, char const*, char const*, char*) { return line == 3; });
    EXPECT_TRUE(Debug::Assert("file.cpp", 3, "Title.", "text"));
    EXPECT_FALSE(Debug::Assert("file.cpp", 4, "Title.", "text"));
    Debug::SetAssertHandler(nullptr);
}

TEST(WithoutHeap, SystemMathAndHashesWork)
{
    System::SCPUInfo info;
    System::GetCPUInfo(info);
    EXPECT_NE(info.processorCount, 0);
    EXPECT_GT(System::GetTimeMs(), 0.0);
    EXPECT_GT(System::GetMaxPhysicalMemory(), 0u);
    EXPECT_GT(System::GetMaxVirtualMemory(), 0u);
    System::FreeLibrary(nullptr);
    char text[8];
    EXPECT_EQ(RTTI::Demangle("class A", text, sizeof text), 0);
    EXPECT_STREQ(text, "A");
    EXPECT_EQ(Math::Floor(-1.5f), -2.0f);
    EXPECT_EQ(~GetCRC32("123456789", 9, 0xFFFFFFFF), 0xCBF43926u);
    EXPECT_EQ(GetFNV32("a", 1, 0, 0x811C9DC5), 0xE40C292Cu);
    EXPECT_EQ(GetFNV64("a", 1, 0, 0xCBF29CE484222325), 0xAF63DC4C8601EC8Cu);
}
