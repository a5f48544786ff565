// A process that ends with threads still at work, or with a logger still installed, ends all the same.
#include "../support/DebuggedProcess.h"
#include "../support/Folders.h"
#include "../support/PluginModule.h"
#include "../support/SystemTraits.h"
#include "Plugin.h"

#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/threads.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>

using namespace Velmor;

namespace {

TestSupport::SChildResult RunToItsEnd(char const* child, std::string const& argument)
{
    TestSupport::CTemporaryFolder const folder;
    TestSupport::SChildOptions options;
    options.folder = folder.Path().string();
    options.timeoutSeconds = 30;
    options.leavesBlocks = true;
    options.arguments = {argument};
    return TestSupport::RunChild(child, options);
}

std::string const& GetArgument()
{
    return TestSupport::GetChildArguments().at(0);
}

} // namespace

// The heap's report at the exit goes to a logger that nobody took back, and whose thread the system may have ended.
VLMCORE_CHILD(LeavesItsLoggerInstalled)
{
    Memory::Initialize(EHeapFlag::Report, 0);
    u64 const bufferSize = std::stoul(GetArgument());
    auto* const logger = Memory::New<CFileLogger>(EHeap::General, "left.log", bufferSize);
    Log::Initialize(logger);
    static_cast<void>(Memory::Malloc(100, EHeap::Pool));
    static_cast<void>(Memory::Malloc(100, EHeap::General));
    return 3;
}

TEST(ProcessEnd, ALoggerThatIsStillInstalledDoesNotKeepTheProcess)
{
    // Unbuffered, a buffer that the report does not fit, and one that it does.
    for (char const* const bufferSize : {"0", "16", "4096"}) {
        auto const child = RunToItsEnd("LeavesItsLoggerInstalled", bufferSize);
        EXPECT_FALSE(child.timedOut) << bufferSize;
        EXPECT_EQ(child.exitCode, 3u) << bufferSize;
    }
}

namespace {

thread_local bool g_isStuck = false;
std::atomic<bool> g_isInsideHook{false};

void StayHere()
{
    if (!g_isStuck)
        return;
    g_isInsideHook = true;
    for (;;)
        Thread::Sleep(1000);
}

void* MallocOrStay(u64 size)
{
    StayHere();
    return std::malloc(size);
}

void* ReallocOrStay(void* block, u64 size)
{
    StayHere();
    return std::realloc(block, size);
}

// Goes into the heap and stays there, with the locks that it holds where it asks a hook for memory.
class CStuckThread : public IThread {
public:
    explicit CStuckThread(EHeap::Type kind) : m_kind(kind) {}

protected:
    void Execute() override
    {
        static_cast<void>(Memory::Malloc(8, m_kind)); // a lane of its own, if there are lanes
        g_isStuck = true;
        for (;;)
            static_cast<void>(Memory::Malloc(512, m_kind));
    }

private:
    EHeap::Type m_kind;
};

} // namespace

VLMCORE_CHILD(LeavesAThreadInTheHeap)
{
    Memory::Initialize(&MallocOrStay, &ReallocOrStay, nullptr, EHeapFlag::Report, 0);
    bool const isExtended = GetArgument() == "lane";
    EHeap::Type const kind = GetArgument() == "store" ? EHeap::General : EHeap::Pool8;
    for (int block = 0; block < (isExtended ? 5000 : 500); ++block)
        static_cast<void>(Memory::Malloc(8, kind));
    auto* const thread = new CStuckThread(kind);
    thread->Run();
    while (!g_isInsideHook)
        Thread::Sleep(1);
    return 3;
}

TEST(ProcessEnd, AThreadThatTheSystemEndedInsideTheHeapDoesNotKeepTheProcess)
{
    if (!TestSupport::SystemTraits.endsThreadsBeforeModules)
        GTEST_SKIP() << "threads run on here while the heap is taken down, which is the host's to prevent";
    for (char const* const place : {"store", "class", "lane"}) {
        auto const child = RunToItsEnd("LeavesAThreadInTheHeap", place);
        EXPECT_FALSE(child.timedOut) << place;
        EXPECT_EQ(child.exitCode, 3u) << place;
    }
}

// Its statics are destroyed with the module, after the threads.
VLMCORE_CHILD(LeavesThreadsToAPlugin)
{
    Memory::Initialize(0, 0);
    using CPlugin = TestSupport::TPluginModule<ProcessEndTest::SPlugin>;
    CPlugin const& plugin = *new CPlugin(VLMCORE_PLUGIN_NAME);
    if (GetArgument() == "job")
        plugin->leaveJobRunning();
    else if (GetArgument() == "ring")
        plugin->leaveFullRing();
    else
        plugin->leaveThreadJoined();
    return 3;
}

TEST(ProcessEnd, ThreadsThatTheSystemEndedAreNotWaitedFor)
{
    if (!TestSupport::SystemTraits.endsThreadsBeforeModules)
        GTEST_SKIP() << "threads run on here, and are waited for";
    for (char const* const what : {"job", "ring", "joined"}) {
        TestSupport::SChildOptions options;
        options.timeoutSeconds = 30;
        options.arguments = {what};
        auto const child = TestSupport::RunChild("LeavesThreadsToAPlugin", options);
        EXPECT_FALSE(child.timedOut) << what;
        EXPECT_EQ(child.exitCode, 3u) << what;
    }
}

namespace {

class CExitJob final : public IThreadJob {
public:
    void Execute() override { std::exit(4); }
};

class CShortJob final : public IThreadJob {
public:
    void Execute() override { Thread::Sleep(20); }
};

} // namespace

VLMCORE_CHILD(EndsInAJob)
{
    Memory::Initialize(0, 0);
    static CThreadPool pool(static_cast<unsigned char>(std::stoul(GetArgument())));
    pool.PushJob(Memory::New<CShortJob>(EHeap::Pool));
    pool.PushJob(Memory::New<CExitJob>(EHeap::Pool));
    for (int job = 0; job < 10; ++job)
        pool.PushJob(Memory::New<CShortJob>(EHeap::Pool));
    for (;;)
        Thread::Sleep(1000);
}

TEST(ProcessEnd, AJobMayEndTheProcessThatOwnsItsPool)
{
    for (char const* const workers : {"1", "3"}) {
        auto const child = RunToItsEnd("EndsInAJob", workers);
        EXPECT_FALSE(child.timedOut) << workers;
        EXPECT_EQ(child.exitCode, 4u) << workers;
    }
}
