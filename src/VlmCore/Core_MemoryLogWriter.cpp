#include "Core_MemoryLogWriter.h"

#include "Core_Log.h"

#include <cstring>

namespace Velmor {

namespace {

constexpr char const* EventNames[4] = {"alloc", "free", "retain", "release"};

/// Functions with one of these in their name belong to the allocator: every stack would begin with them.
constexpr char const* AllocatorNames[] = {
    "Velmor::TBlockAllocator", "Velmor::CFileMemoryLogger", "Velmor::Debug", "Velmor::Memory",
    "Velmor::CHeap",           "Velmor::CDelete",           "operator new"};

/// How long a recording thread waits for a writer that does not move.
constexpr u64 StallMilliseconds = 5000;

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
    : m_owner(&owner), m_events(owner.m_events), m_stacks(owner.m_stacks)
{
}

// ---- thread ----

void CJSONMemoryLogWriter::StartThread()
{
    RunLooped();
    CBackoff backoff;
    while (m_self.load(std::memory_order_acquire) == NoThreadId)
        backoff.Wait();
}

void CJSONMemoryLogWriter::Execute()
{
    if (m_self.load(std::memory_order_relaxed) == NoThreadId)
        m_self.store(Thread::GetId(), std::memory_order_release);
    u64 const count = GetCurrentBuffer().count.load(std::memory_order_relaxed);
    if (m_policy.IsDue(count, m_owner->m_capacity))
        Drain();
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

    m_isStalled.store(false, std::memory_order_relaxed);
    WriteRecords(buffer.records, count);
    buffer.count.store(0, std::memory_order_relaxed);
    ReportDropped();
    return true;
}

bool CJSONMemoryLogWriter::WaitForRoom(CBackoff& backoff, u64 since)
{
    if (Log::GetTimestamp() - since >= StallMilliseconds)
        m_isStalled.store(true, std::memory_order_relaxed);
    if (m_isStalled.load(std::memory_order_relaxed))
        return false;
    backoff.Wait();
    return true;
}

void CJSONMemoryLogWriter::ReportDropped()
{
    u64 const dropped = m_dropped.exchange(0, std::memory_order_relaxed);
    if (dropped != 0)
        Debug::Print("Memory log: %llu events dropped, the writer stood still.\n",
                     static_cast<unsigned long long>(dropped));
}

// ---- records ----

void CJSONMemoryLogWriter::WriteNow(SRecord const& record) noexcept
{
    m_isWritingNow = true;
    WriteRecords(&record, 1);
    m_isWritingNow = false;
}

void CJSONMemoryLogWriter::WriteRecords(SRecord const* records, u64 count) noexcept
{
    for (u64 index = 0; index < count; ++index) {
        WriteStack(records[index]);
        WriteEvent(records[index]);
    }
    m_events.Flush();
}

void CJSONMemoryLogWriter::WriteEvent(SRecord const& record) noexcept
{
    try {
        CJSONText& text = m_events.BeginItem();
        text.Append("{ \"Timestamp\": ");
        text.AppendDecimal(record.timestamp);
        text.Append(", \"Address\": \"");
        text.AppendHex(record.address);
        text.Append("\", \"Size\": ");
        text.AppendDecimal(record.size);
        text.Append(", \"HeapSize\": ");
        text.AppendDecimal(record.heapSize);
        text.Append(", \"Event\": \"");
        text.Append(EventNames[record.event]);
        text.Append("\", \"CSHash\": ");
        text.AppendDecimal(record.stackHash);
        text.Append(" }\n");
        m_events.EndItem();
    }
    catch (...) {
        m_events.DropItem();
    }
}

/// Writes the stack of the event unless it is in the file already. One that there is no memory for is left to the next
/// event that has it.
void CJSONMemoryLogWriter::WriteStack(SRecord const& record) noexcept
{
    if (m_writtenStacks.Find(record.stackHash) != nullptr)
        return;
    try {
        CJSONText& text = m_stacks.BeginItem();
        AppendStack(text, record);
        m_writtenStacks.Insert(record.stackHash, true);
        m_stacks.EndItem();
        m_stacks.Flush();
    }
    catch (...) {
        m_stacks.DropItem();
    }
}

void CJSONMemoryLogWriter::AppendStack(CJSONText& text, SRecord const& record)
{
    u64 count = 0;
    while (count < Debug::MaxFrames && record.stack[count] != nullptr)
        ++count;
    void* addresses[Debug::MaxFrames];
    std::memcpy(addresses, record.stack, sizeof addresses);
    Debug::ResolveSymbols(addresses, m_frames, count);

    text.Append("{ \"CSHash\": ");
    text.AppendDecimal(record.stackHash);
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
