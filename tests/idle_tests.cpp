// What waits costs next to nothing and wakes at once: the pool's workers and the loggers' writers.
#include "RecordingFile.h"
#include "TestHeap.h"
#include "support/ProcessorTime.h"
#include "support/ThreadHelpers.h"

#include <vlmcore/logging.h>
#include <vlmcore/system.h>
#include <vlmcore/threads.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

using namespace Velmor;
using TestSupport::Eventually;
using TestSupport::GetProcessorMilliseconds;
using VlmTest::CRecordingFile;

namespace {

constexpr double LongestWaking = 2.0;      // milliseconds
constexpr double LargestIdlePercent = 2.0; // of one processor

/// Processor time of two thirds of a second in which this thread sleeps, in percent of one processor. What was busy
/// before has a moment to settle. Tried until it is small, five times at most: a machine that is busy makes some of
/// them dear, a thread that does not sleep all.
double MeasureIdlePercent(double largest = LargestIdlePercent)
{
    double best = 1e9;
    for (int round = 0; round < 5 && best >= largest; ++round) {
        Thread::Sleep(200);
        double const from = System::GetTimeMs();
        double const before = GetProcessorMilliseconds();
        Thread::Sleep(700);
        best = std::min(best, (GetProcessorMilliseconds() - before) / (System::GetTimeMs() - from) * 100);
    }
    return best;
}

/// The same of a thread that does nothing but sleep a millisecond at a time: it is what the machine takes for that,
/// from 1 % on to 6 % and more on a virtual one.
double MeasureSleeperPercent()
{
    std::atomic<bool> isOver = false;
    TestSupport::CFunctionThread sleeper([&] {
        while (!isOver)
            Thread::Sleep(1);
    });
    sleeper.Run();
    double const percent = MeasureIdlePercent(100);
    isOver = true;
    sleeper.Join();
    return percent;
}

/// When something was last done, and how often.
class CStamp {
public:
    void Set()
    {
        m_time = System::GetTimeMs();
        ++m_count;
    }
    [[nodiscard]] int GetCount() const { return m_count; }

    /// Milliseconds from a call of `act` until the stamp is set, each time after a rest longer than any sleep. Tried
    /// until it is short, thirty times at most: a machine that is busy delays some of them, a sleeper that nobody wakes
    /// all.
    template <class Act>
    [[nodiscard]] double MeasureWaking(Act const& act) const
    {
        double best = 1e9;
        for (int round = 0; round < 30 && best >= LongestWaking; ++round) {
            Thread::Sleep(300);
            int const before = m_count;
            double const from = System::GetTimeMs();
            act();
            EXPECT_TRUE(Eventually([&] { return m_count > before; }));
            best = std::min(best, m_time - from);
        }
        return best;
    }

private:
    std::atomic<double> m_time{0};
    std::atomic<int> m_count{0};
};

class CStampingJob : public IThreadJob {
public:
    explicit CStampingJob(CStamp& stamp) : m_stamp(stamp) {}
    [[nodiscard]] bool AutoDelete() const override { return false; }
    void Execute() override { m_stamp.Set(); }

private:
    CStamp& m_stamp;
};

[[nodiscard]] TResourcePtr<CRecordingFile> MakeStampingFile(CStamp& stamp)
{
    return MakeResource<CRecordingFile>([&stamp](u64, u64 size) {
        stamp.Set();
        return size;
    });
}

} // namespace

TEST(Idle, AThreadPoolCostsNothingAndWakesAtOnce)
{
    CStamp stamp;
    CStampingJob job(stamp);
    CThreadPool pool(4);
    for (int round = 0; round < 100; ++round)
        pool.PushJob(&job);
    pool.WaitForJobs();
    EXPECT_LT(MeasureIdlePercent(), LargestIdlePercent);
    EXPECT_LT(stamp.MeasureWaking([&] { pool.PushJob(&job); }), LongestWaking);
}

TEST(Idle, ABufferedFileLoggerCostsNothingAndWakesAtOnce)
{
    CStamp stamp;
    CFileLogger logger(MakeStampingFile(stamp), 65536);
    auto const write = [&] { logger.Write(Log::EMessage::Info, 1, "text"); };
    write();
    EXPECT_TRUE(Eventually([&] { return stamp.GetCount() == 1; }));
    EXPECT_LT(MeasureIdlePercent(), LargestIdlePercent);
    EXPECT_LT(stamp.MeasureWaking(write), LongestWaking);
}

TEST(Idle, ABufferedMemoryLoggerCostsNothingAndWakesAtOnce)
{
    CStamp stamp;
    CFileMemoryLogger logger(MakeStampingFile(stamp), MakeResource<CRecordingFile>(), 1000);
    auto const record = [&] { logger.OnRetain(&stamp); };
    for (int count = stamp.GetCount() + 1, round = 0; round < 2; ++round, ++count) { // symbols are looked for
        record();
        EXPECT_TRUE(Eventually([&] { return stamp.GetCount() >= count; }));
    }
    EXPECT_LT(MeasureIdlePercent(), LargestIdlePercent);
    EXPECT_LT(stamp.MeasureWaking(record), LongestWaking);
}

TEST(Idle, ALockThatIsHeldForLongCostsItsSleepsAlone)
{
    double const most = LargestIdlePercent + 1.5 * MeasureSleeperPercent(); // who yields takes 100
    CSpinLock lock;
    lock.Acquire();
    TestSupport::CFunctionThread waiter([&] { TScopedLock const guard(lock); });
    waiter.Run();
    EXPECT_LT(MeasureIdlePercent(most), most);
    lock.Release();
    waiter.Join();
}
