// vlmhost: an indexer for text files, and a model of how a program hosts VlmCore.
//
// The order is the point: memory first, then the log, then the work, then the same backwards; every object of the
// library is gone before the heap is.

#include "Index.h"
#include "Names.h"
#include "Options.h"
#include "Report.h"

#include <cstdio>

using namespace Velmor;

namespace {

namespace EExitCode {
enum Type : int { Complete = 0, Incomplete = 1, WrongUse = 2, Fault = 3 };
} // namespace EExitCode

int Run(SOptions const& options)
{
    // The log's own text goes through a buffer; a writer thread takes it to the file.
    constexpr u64 LogBufferSize = 64 * 1024;
    CFileLogger logger(ToSystemName(options.logPath), LogBufferSize);
    Log::Initialize(&logger);
    SIndex index;
    BuildIndex(options, index);
    static_cast<void>(Log::Release()); // the logger is ours and ends with this function

    options.json ? PrintJSON(index, options) : PrintTable(index, options);
    if (options.memory)
        PrintMemory();
    return IsComplete(index) ? EExitCode::Complete : EExitCode::Incomplete;
}

// Records every allocation for the length of a scope, when the options ask for it.
class CMemoryLog {
public:
    explicit CMemoryLog(SOptions const& options)
    {
        if (options.memoryLogFolder.IsEmpty())
            return;
        constexpr u64 EventsBuffered = 16 * 1024;
        CMutableString events;
        CMutableString stacks;
        Format(events, "%1/events.json", options.memoryLogFolder);
        Format(stacks, "%1/stacks.json", options.memoryLogFolder);
        m_logger.Reset(
            Memory::New<CFileMemoryLogger>(EHeap::General, ToSystemName(events), ToSystemName(stacks), EventsBuffered));
        Memory::InitializeLog(m_logger.Get());
    }
    CMemoryLog(CMemoryLog const&) = delete;
    CMemoryLog& operator=(CMemoryLog const&) = delete;
    ~CMemoryLog() { Memory::ReleaseLog(); }

private:
    TUniquePtr<CFileMemoryLogger> m_logger; // ends after it was taken out
};

int RunGuarded()
{
    try {
        SOptions const options = ReadOptions();
        CMemoryLog const memoryLog(options);
        if (!options.help)
            return Run(options);
        std::fputs(static_cast<char const*>(GetUsage().GetData()), stdout);
        return EExitCode::Complete;
    }
    catch (CException const& exception) {
        std::fprintf(stderr, "vlmhost: %s\n", static_cast<char const*>(exception.GetText().GetData()));
        return EExitCode::WrongUse;
    }
    catch (std::bad_alloc const& exception) {
        std::fprintf(stderr, "vlmhost: %s\n", exception.what());
        return EExitCode::Fault;
    }
}

// Blocks that are in somebody's hands: those of the pools, and those of the system that are no pool's chunk or table.
u64 CountLiveBlocks()
{
    Memory::SStatistics statistics{};
    Memory::GetStatistics(statistics);
    u64 count = statistics.liveCount;
    for (Memory::SStatistics::SPool const& pool : statistics.pools) {
        count += pool.liveCount;
        for (u64 index = 0; index < pool.classCount; ++index) {
            u64 const chunks = pool.classes[index].chunkCount;
            count -= chunks == 0 ? 0 : chunks + 1;
        }
    }
    return count;
}

} // namespace

int main()
{
    Memory::Initialize(EHeapFlag::Report, 0);
    u64 const liveAtStart = CountLiveBlocks();
    int exitCode = RunGuarded();
    u64 const leaked = CountLiveBlocks() - liveAtStart;
    Memory::Deinitialize();

    if (leaked == 0)
        std::fputs("No memory leaks.\n", stderr);
    else {
        std::fprintf(stderr, "%llu memory leak(s).\n", static_cast<unsigned long long>(leaked));
        exitCode = EExitCode::Fault;
    }
    return exitCode;
}
