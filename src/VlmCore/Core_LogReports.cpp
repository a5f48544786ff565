#include "Core_Log.h"

#include <vlmcore/debug.h>
#include <vlmcore/format.h>
#include <vlmcore/logging.h>
#include <vlmcore/system.h>

#include <cstdlib>
#include <memory>

namespace Velmor::Log {

namespace {

/// Writes the lines of one report: all at level Info and with one time stamp.
class CReport {
public:
    explicit CReport(ILogger& logger) : m_logger(logger), m_timestamp(GetTimestamp()) {}

    template <class... Arguments>
    void WriteLine(char const* format, Arguments const&... arguments) const
    {
        CMutableString line;
        Format(line, format, arguments...);
        m_logger.Write(EMessage::Info, m_timestamp, line);
    }

private:
    ILogger& m_logger;
    u64 m_timestamp;
};

} // namespace

void Callstack(unsigned char skip)
{
    if (!HasLogger())
        return;
    // From the C runtime: a stack may be wanted because the memory manager is in trouble.
    std::unique_ptr<void, decltype(&std::free)> const memory(
        std::malloc(sizeof(Debug::SCallstackLine) * Debug::MaxFrames), &std::free);
    if (memory == nullptr)
        return;
    auto* const frames = static_cast<Debug::SCallstackLine*>(memory.get());
    Debug::LoadSymbols();
    unsigned char const count = Debug::UnwindCallStack(frames, nullptr);
    CReport const report(GetLogger());
    for (unsigned int index = skip; index < count; ++index) {
        Debug::SCallstackLine const& frame = frames[index];
        report.WriteLine("<%1, %x2> %3(%4) : %5\n", CString(frame.module), frame.address, CString(frame.file),
                         frame.line, CString(frame.symbol));
    }
}

void SystemInfo()
{
    if (!HasLogger())
        return;
    System::SCPUInfo info;
    System::GetCPUInfo(info);
    CReport const report(GetLogger());
    // Kept: the same two words on every processor.
    report.WriteLine("CPU:     %1 %2 x%3\n", CString("64Bit"), CString("Intel"), u32{info.processorCount});
    report.WriteLine("Memory:  %1 MB\n", System::GetMaxPhysicalMemory() >> 20);
    report.WriteLine("Virtual: %1 MB\n", System::GetMaxVirtualMemory() >> 20);
    report.WriteLine("L1Cache: %1 KB / %2 B\n", info.cacheSize[0] >> 10, info.cacheLineSize[0]);
    report.WriteLine("L2Cache: %1 KB / %2 B\n", info.cacheSize[1] >> 10, info.cacheLineSize[1]);
    report.WriteLine("L3Cache: %1 KB / %2 B\n", info.cacheSize[2] >> 10, info.cacheLineSize[2]);
    if (info.hasVector2 != 0)
        report.WriteLine("Vector2: available\n");
    if (info.hasVector4 != 0)
        report.WriteLine("Vector4: available\n");
    if (info.hasVector8 != 0)
        report.WriteLine("Vector8: available\n");
}

} // namespace Velmor::Log
