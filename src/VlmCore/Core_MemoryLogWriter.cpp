#include "Core_MemoryLogWriter.h"

#include "Core_Fork.h"
#include "Core_Log.h"
#include "platform/Platform_System.h"

#include <vlmcore/system.h>

#include <cstring>

namespace Velmor {

namespace {

/// Functions with one of these in their name belong to the allocator: every stack would begin with them.
constexpr char const* AllocatorNames[] = {
    "Velmor::TBlockAllocator", "Velmor::CFileMemoryLogger", "Velmor::Debug", "Velmor::Memory",
    "Velmor::CHeap",           "Velmor::CDelete",           "operator new"};

[[nodiscard]] bool IsAllocatorFrame(Debug::SCallstackLine const& frame)
{
    for (char const* const name : AllocatorNames) {
        if (std::strstr(frame.symbol, name) != nullptr)
            return true;
    }
    return false;
}

} // namespace

CJSONMemoryLogWriter::CJSONMemoryLogWriter(CFileMemoryLogger& owner)
    : m_owner(&owner), m_clock(Platform::HasSteadyTicks()), m_stacks(owner.m_stacks),
      m_events(owner.m_events, &m_stacks)
{
}

// ---- thread ----

void CJSONMemoryLogWriter::StartThread()
{
    RunLooped();
    CBackoff backoff;
    while (m_self.load(std::memory_order_acquire) == NoThreadId && !backoff.IsInVain())
        backoff.Wait();
}

void CJSONMemoryLogWriter::Execute()
{
    if (m_self.load(std::memory_order_relaxed) == NoThreadId)
        m_self.store(Thread::GetId(), std::memory_order_release);
    auto const getCount = [this] { return GetCurrentBuffer().count.load(std::memory_order_relaxed); };
    EDrain const decision = m_policy.Decide(getCount(), m_owner->m_capacity, &System::GetTimeMs);
    if (decision == EDrain::Now)
        Drain();
    else if (decision == EDrain::Idle) {
        m_bell.Sleep(m_owner->m_lock, [&] { return getCount() == 0; });
        Drain(); // the first event after a rest does not wait for company
    }
}

void CJSONMemoryLogWriter::Finish()
{
    m_bell.Close(m_owner->m_lock);
    Join();
}

CFileMemoryLogger::SBuffer& CJSONMemoryLogWriter::GetCurrentBuffer() const
{
    // No lock needed to look: only this thread changes the index.
    return m_owner->m_buffers[m_owner->m_index.load(std::memory_order_relaxed)];
}

/// The lock is held for the swap only. Resolving and writing allocate, and take locks of the memory manager, of the
/// debugging library and of the file: a thread that holds one of these and reports an event must find the lock free.
bool CJSONMemoryLogWriter::Drain() noexcept
{
    CFileMemoryLogger::SBuffer& buffer = GetCurrentBuffer();
    if (buffer.count.load(std::memory_order_relaxed) == 0)
        return false;

    m_owner->m_lock.Acquire();
    m_owner->m_index.store((m_owner->m_index.load(std::memory_order_relaxed) - 1) & 1, std::memory_order_relaxed);
    u64 const count = buffer.count.load(std::memory_order_relaxed);
    m_owner->m_lock.TryRelease();

    WriteRecords(buffer.records, m_owner->GetStacks(buffer), count);
    buffer.count.store(0, std::memory_order_relaxed);
    ReportDropped();
    return true;
}

u64 CJSONMemoryLogWriter::GetTimestamp()
{
    return m_clock.GetWhole(&Platform::GetTicks, &System::GetTimeMs);
}

bool CJSONMemoryLogWriter::WaitForRoom(SWait& wait)
{
    u64 const progress = m_progress.load(std::memory_order_relaxed);
    // Where one thread has lost its patience the others need not wait as long.
    if (m_stalledProgress.load(std::memory_order_relaxed) == progress)
        return false;
    if (wait.watch.HasStoodStill(progress, Log::GetTimestamp())) {
        m_stalledProgress.store(progress, std::memory_order_relaxed);
        return false;
    }
    wait.backoff.Wait();
    return true;
}

void CJSONMemoryLogWriter::GiveUp()
{
    Fork::ForgetThread(*this);
    m_isGivenUp = true;
    m_isWritingNow = true; // nobody writes at once
    m_stalledProgress.store(m_progress.load(std::memory_order_relaxed), std::memory_order_relaxed); // or waits for it
}

void CJSONMemoryLogWriter::ReportDropped()
{
    u64 const dropped = m_dropped.exchange(0, std::memory_order_relaxed);
    if (dropped != 0)
        Debug::Print("Memory log: %llu events dropped, the writer stood still.\n",
                     static_cast<unsigned long long>(dropped));
}

// ---- records ----

void CJSONMemoryLogWriter::WriteNow(SRecord const& record, SStack const& stack) noexcept
{
    m_isWritingNow = true;
    WriteRecords(&record, &stack, 1);
    m_isWritingNow = false;
}

void CJSONMemoryLogWriter::WriteRecords(SRecord const* records, SStack const* stacks, u64 count) noexcept
{
    u64 progress = m_progress.load(std::memory_order_relaxed);
    for (u64 index = 0; index < count; ++index) {
        u32 const hash = records[index].stackHash;
        if (!m_filter.Knows(hash)) [[unlikely]]
            AddStack(hash, stacks[index]);
        AddEvent(records[index]);
        m_progress.store(++progress, std::memory_order_relaxed);
    }
    m_stacks.Flush();
    m_events.Flush();
}

/// Writes the stack unless it is in the file already. One that there is no memory for is left to the next event that
/// has it.
void CJSONMemoryLogWriter::AddStack(u32 hash, SStack const& stack) noexcept
{
    try {
        if (!m_writtenStacks.insert(hash).second)
            m_filter.Note(hash); // it was pushed out
        else if (m_stacks.AddItem([&](CJSONText& text) { AppendStack(text, hash, stack); }))
            m_filter.Note(hash);
        else
            m_writtenStacks.erase(hash);
    }
    catch (CBadAllocation const&) {
    }
}

void CJSONMemoryLogWriter::AddEvent(SRecord const& record) noexcept
{
    m_events.AddShortItem<CEventText::RoomSize>([&](char* at) {
        return m_eventText.Write(at, {record.timestamp, record.address, record.size, record.heapSize,
                                      static_cast<u32>(record.event), record.stackHash});
    });
}

void CJSONMemoryLogWriter::AppendStack(CJSONText& text, u32 hash, SStack const& stack)
{
    u64 count = 0;
    while (count < Debug::MaxFrames && stack.frames[count] != nullptr)
        ++count;
    void* addresses[Debug::MaxFrames];
    std::memcpy(addresses, stack.frames, count * sizeof *addresses);
    Debug::ResolveSymbols(addresses, m_frames, count);

    text.Append("{ \"CSHash\": ");
    text.AppendDecimal(hash);
    text.Append(", \"Stack\": [\n");
    char const* separator = "";
    for (u64 index = 0; index < count; ++index) {
        Debug::SCallstackLine const& frame = m_frames[index];
        if (IsAllocatorFrame(frame))
            continue;
        text.Append(separator);
        text.Append("{ \"Module\": \"");
        text.AppendEscaped(frame.module);
        text.Append("\", \"Symbol\": \"");
        text.AppendEscapedMarkup(frame.symbol);
        text.Append("\", \"File\": \"");
        text.AppendEscaped(frame.file);
        text.Append("\", \"Line\": ");
        text.AppendDecimal(frame.line);
        text.Append(" }");
        separator = ",\n";
    }
    if (*separator != '\0')
        text.Append("\n");
    text.Append("]}\n");
}

} // namespace Velmor
