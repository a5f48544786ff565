#include "Plugin.h"
#include "../support/PluginEntry.h"

#include <vlmcore/memory.h>
#include <vlmcore/threads.h>

#include <atomic>

using namespace Velmor;

namespace {

std::atomic<int> g_running{0};

[[noreturn]] void StayForEver()
{
    ++g_running;
    for (;;)
        Thread::Sleep(1000);
}

void WaitForRunning(int count)
{
    while (g_running < count)
        Thread::Sleep(1);
}

class CEndlessJob : public IThreadJob {
public:
    void Execute() override { StayForEver(); }
};

class CEndlessThread : public IThread {
public:
    ~CEndlessThread() override { Join(); }

private:
    void Execute() override { StayForEver(); }
};

class CJoiningThread : public IThread {
public:
    explicit CJoiningThread(IThread& joined) : m_joined(joined) {}

private:
    void Execute() override
    {
        ++g_running;
        m_joined.Join();
    }

    IThread& m_joined;
};

class CNoJob : public IThreadJob {
public:
    void Execute() override {}
    [[nodiscard]] bool AutoDelete() const override { return false; }
};

struct SLatePusher {
    CThreadPool pool{1};
    CNoJob job;

    ~SLatePusher()
    {
        for (int push = 0; push < 400; ++push)
            pool.PushJob(&job);
    }
};

constexpr ProcessEndTest::SPlugin Plugin = {
    [] {
        static CThreadPool pool(1);
        pool.PushJob(Memory::New<CEndlessJob>(EHeap::Pool));
        WaitForRunning(1);
    },
    [] {
        static SLatePusher pusher;
        pusher.pool.PushJob(Memory::New<CEndlessJob>(EHeap::Pool));
        WaitForRunning(1);
    },
    [] {
        static CEndlessThread thread;
        thread.Run();
        WaitForRunning(1);
        auto* const joining = new CJoiningThread(thread);
        joining->Run();
        WaitForRunning(2);
        Thread::Sleep(50); // until it waits
    },
};

} // namespace

VLMCORE_TEST_PLUGIN(Plugin)
