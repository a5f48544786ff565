#include "Core_Log.h"
#include "Core_MemoryLog.h"
#include "Core_MemoryLogWriter.h"

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <cstddef>
#include <cstring>

namespace Velmor {

namespace {

/// Codes of the events, indices of their names.
namespace EMemoryEvent {
enum Type : u64 { Allocate = 0, Free = 1, Retain = 2, Release = 3 };
} // namespace EMemoryEvent

[[nodiscard]] TResourcePtr<IFile> CreateFile(CString const& path)
{
    auto const mode = EFileOpen::Read | EFileOpen::Write | EFileOpen::CreateAlways;
    return TResourcePtr<IFile>(Memory::New<CNativeFile>(EHeap::General, path, mode));
}

} // namespace

CFileMemoryLogger::CFileMemoryLogger(CString const& eventsPath, CString const& stacksPath, u64 capacity)
    : CFileMemoryLogger(CreateFile(eventsPath), CreateFile(stacksPath), capacity)
{
    m_areOwnFiles = true;
}

CFileMemoryLogger::CFileMemoryLogger(TResourcePtr<IFile> const& events, TResourcePtr<IFile> const& stacks, u64 capacity)
    : m_events(events), m_stacks(stacks), m_capacity(capacity)
{
    static_assert(sizeof(SRecord) == 304 && offsetof(SRecord, stackHash) == 280 && offsetof(SRecord, event) == 296);
    static_assert(sizeof(CFileMemoryLogger) == 88 && sizeof(CRecursiveSpinLock) == 8);
    Start();
}

CFileMemoryLogger::~CFileMemoryLogger()
{
    m_writer->Finish();
    // What came in after the thread's last look.
    while (m_writer->Drain())
        continue;
    Memory::Delete(m_writer);
    for (SBuffer& buffer : m_buffers)
        Memory::FreeQuietly(buffer.records);
    // Without a heap the handles do not touch their objects. These are still there, in general memory, and are to be
    // closed.
    if (m_areOwnFiles && !Memory::IsInitialized()) {
        m_events->~IFile();
        m_stacks->~IFile();
    }
}

void CFileMemoryLogger::Start()
{
    try {
        if (m_capacity != 0) {
            if (m_capacity > ~u64{0} / sizeof(SRecord))
                throw CBadAllocation();
            for (SBuffer& buffer : m_buffers) {
                buffer.records = static_cast<SRecord*>(Memory::Malloc(m_capacity * sizeof(SRecord), EHeap::General));
                if (buffer.records == nullptr)
                    throw CBadAllocation();
            }
        }
        m_writer = Memory::New<CJSONMemoryLogWriter>(EHeap::General, *this);
        // Without buffers there is nothing for a thread to do.
        if (m_capacity != 0)
            m_writer->StartThread();
    }
    catch (...) {
        Memory::Delete(m_writer);
        for (SBuffer& buffer : m_buffers)
            Memory::FreeQuietly(buffer.records);
        throw;
    }
}

void CFileMemoryLogger::OnAllocate(void const* address, u64 size)
{
    Record(EMemoryEvent::Allocate, address, size);
}

void CFileMemoryLogger::OnFree(void const* address)
{
    Record(EMemoryEvent::Free, address, 0);
}

void CFileMemoryLogger::OnRetain(void const* address)
{
    Record(EMemoryEvent::Retain, address, 0);
}

void CFileMemoryLogger::OnRelease(void const* address)
{
    Record(EMemoryEvent::Release, address, 0);
}

void CFileMemoryLogger::Record(u64 event, void const* address, u64 size)
{
    if (m_writer->IsCaller())
        return;
    if (m_capacity == 0)
        RecordUnbuffered(event, address, size);
    else
        RecordBuffered(event, address, size);
}

/// What of a record is known under the lock only, and the stack: its addresses, of which nothing but the ones in use is
/// copied, and a null behind them.
void CFileMemoryLogger::Fill(SRecord& record, void* const* stack, u64 frameCount)
{
    record.heapSize = MemoryLog::GetHeapSize();
    std::memcpy(record.stack, stack, frameCount * sizeof *stack);
    if (frameCount < Debug::MaxFrames)
        record.stack[frameCount] = nullptr;
    record.timestamp = Log::GetTimestamp();
}

/// The lock is recursive: a write that allocates comes back here on the same thread, and its event is dropped.
void CFileMemoryLogger::RecordUnbuffered(u64 event, void const* address, u64 size)
{
    TScopedLock<CRecursiveSpinLock> const lock(m_lock);
    if (m_writer->IsWritingNow())
        return;
    SRecord record;
    void* stack[Debug::MaxFrames];
    u64 const frameCount = Debug::Backtrace(stack, &record.stackHash);
    Fill(record, stack, frameCount);
    record.address = reinterpret_cast<u64>(address);
    record.size = size;
    record.event = event;
    m_writer->WriteNow(record);
}

/// The stack is captured before the lock is taken: a capture that allocates comes back here, and finds room or waits
/// for it without holding anything. Under the lock there is a copy, no more; a stack that is in the file already is not
/// even copied.
void CFileMemoryLogger::RecordBuffered(u64 event, void const* address, u64 size)
{
    void* stack[Debug::MaxFrames];
    u32 stackHash = 0;
    u64 const captured = Debug::Backtrace(stack, &stackHash);
    u64 const frameCount = m_writer->HasStack(stackHash) ? 0 : captured;

    m_lock.Acquire();
    SBuffer* buffer = &m_buffers[m_index.load(std::memory_order_relaxed)];
    if (buffer->count.load(std::memory_order_relaxed) == m_capacity) [[unlikely]] {
        CJSONMemoryLogWriter::SWait wait;
        do {
            m_lock.Release();
            if (!m_writer->WaitForRoom(wait)) {
                m_writer->CountDropped();
                return;
            }
            m_lock.Acquire();
            buffer = &m_buffers[m_index.load(std::memory_order_relaxed)];
        } while (buffer->count.load(std::memory_order_relaxed) == m_capacity);
    }
    u64 const count = buffer->count.load(std::memory_order_relaxed);
    SRecord& record = buffer->records[count];
    record.address = reinterpret_cast<u64>(address);
    record.size = size;
    record.stackHash = stackHash;
    record.event = event;
    Fill(record, stack, frameCount);
    buffer->count.store(count + 1, std::memory_order_relaxed);
    bool const isBellWanted = m_writer->GetBell().IsWanted();
    m_lock.Release();
    if (isBellWanted) [[unlikely]]
        m_writer->GetBell().Ring();
}

} // namespace Velmor
