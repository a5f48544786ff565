// The writer threads of the buffered loggers while nothing happens: the processor time they take, and how long after
// that a line or an event needs to reach its file.
#include "waiting.h"

#include <vlmcore/files.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/resources.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

namespace {

using namespace Velmor;
using Waiting::Clock;

/// Notes when it was last written to.
class CStampFile : public IFile {
public:
    CString GetPath() override { return "stamp"; }
    CString GetFileName() override { return "stamp"; }
    CString GetFileExt() override { return ""; }
    [[nodiscard]] bool IsWritable() const override { return true; }
    [[nodiscard]] bool IsReadable() const override { return false; }
    [[nodiscard]] void* GetNativeHandle() const override { return nullptr; }
    u64 Read(void*, u64) override { return 0; }
    u64 Write(void const*, u64 size) override
    {
        at = Clock::now();
        m_position += size;
        writes.fetch_add(1, std::memory_order_release);
        return size;
    }
    u64 Seek(ESeek::Type, i64) override { return m_position; }
    [[nodiscard]] u64 GetPosition() const override { return m_position; }
    [[nodiscard]] bool ReachedEOF() const override { return true; }
    [[nodiscard]] u64 GetSizeByte() const override { return m_position; }

    Clock::time_point at;
    std::atomic<u64> writes{0};

private:
    u64 m_position = 0;
};

/// A text logger and what it writes to.
class CTextLog {
public:
    void Write() { m_logger.Write(Log::EMessage::Info, 0, "a line"); }
    [[nodiscard]] CStampFile& GetFile() { return *m_file; }

private:
    TResourcePtr<CStampFile> m_file = MakeResource<CStampFile>();
    CFileLogger m_logger{m_file, 65536};
};

/// A memory logger and what it writes its events to.
class CEventLog {
public:
    void Write() { m_logger.OnFree(this); }
    [[nodiscard]] CStampFile& GetFile() { return *m_events; }

private:
    TResourcePtr<CStampFile> m_events = MakeResource<CStampFile>();
    TResourcePtr<CStampFile> m_stacks = MakeResource<CStampFile>();
    CFileMemoryLogger m_logger{m_events, m_stacks, 1000};
};

/// From before the call to the write that it causes, after an idle time.
template <class LogUnderTest>
void Wake(benchmark::State& state)
{
    LogUnderTest log;
    CStampFile& file = log.GetFile();
    Waiting::CLatencies latencies(state);
    for (auto _ : state) {
        latencies.Rest();
        u64 const before = file.writes.load(std::memory_order_acquire);
        auto const from = Clock::now();
        log.Write();
        while (file.writes.load(std::memory_order_acquire) == before)
            std::this_thread::yield();
        latencies.Add(file.at - from);
    }
}

/// The log has nothing to do.
template <class LogUnderTest>
void Idle(benchmark::State& state)
{
    LogUnderTest log;
    log.Write();
    Waiting::MeasureIdle(state);
}

BENCHMARK(Wake<CTextLog>)->Name("LogWriters/WakeTextLog/ours")->Iterations(100)->UseManualTime();
BENCHMARK(Wake<CEventLog>)->Name("LogWriters/WakeEventLog/ours")->Iterations(100)->UseManualTime();
BENCHMARK(Idle<CTextLog>)->Name("LogWriters/IdleTextLog/ours")->Iterations(2)->UseManualTime();
BENCHMARK(Idle<CEventLog>)->Name("LogWriters/IdleEventLog/ours")->Iterations(2)->UseManualTime();

} // namespace

int main(int argc, char** argv)
{
    Memory::Initialize(0, 0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
