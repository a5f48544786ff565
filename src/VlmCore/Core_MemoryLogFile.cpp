#include "Core_Fork.h"
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

/// Bytes of a buffer that an event takes.
constexpr u64 EventSize = 304;

[[nodiscard]] TResourcePtr<IFile> CreateFile(CString const& path)
{
    auto const mode = EFileOpen::Read | EFileOpen::Write | EFileOpen::CreateAlways;
    return TResourcePtr<IFile>(Memory::New<CNativeFile>(EHeap::General, path, mode));
}

} // namespace

/// A memory logger in a copy of the process: it stays the original's, whose files these are. Nothing of what its writer
/// was at is touched any more.
struct SMemoryLoggerFork {
    static void Follow(void* object, EFork moment)
    {
        if (moment != EFork::InCopy)
            return;
        CFileMemoryLogger& logger = *static_cast<CFileMemoryLogger*>(object);
        MemoryLog::Uninstall(logger);
        logger.m_writer->GiveUp();
        ::new (&logger.m_lock) CRecursiveSpinLock;
    }
};

CFileMemoryLogger::CFileMemoryLogger(CString const& eventsPath, CString const& stacksPath, u64 capacity)
    : CFileMemoryLogger(CreateFile(eventsPath), CreateFile(stacksPath), capacity)
{
    m_areOwnFiles = true;
}

CFileMemoryLogger::CFileMemoryLogger(TResourcePtr<IFile> const& events, TResourcePtr<IFile> const& stacks, u64 capacity)
    : m_events(events), m_stacks(stacks), m_capacity(capacity)
{
    static_assert(sizeof(SRecord) == 48 && sizeof(SRecord) + sizeof(SStack) == EventSize);
    static_assert(sizeof(SStack::frames) == Debug::MaxFrames * sizeof(void*));
    static_assert(sizeof(CFileMemoryLogger) == 88 && sizeof(CRecursiveSpinLock) == 8);
    Start();
}

CFileMemoryLogger::~CFileMemoryLogger()
{
    Fork::Withdraw(this);
    if (!m_writer->IsGivenUp()) {
        m_writer->Finish();
        // What came in after the thread's last look.
        while (m_writer->Drain())
            continue;
        Memory::Delete(m_writer);
    }
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
            if (m_capacity > ~u64{0} / EventSize)
                throw CBadAllocation();
            for (SBuffer& buffer : m_buffers) {
                buffer.records = static_cast<SRecord*>(Memory::Malloc(m_capacity * EventSize, EHeap::General));
                if (buffer.records == nullptr)
                    throw CBadAllocation();
            }
        }
        m_writer = Memory::New<CJSONMemoryLogWriter>(EHeap::General, *this);
        // Without buffers there is nothing for a thread to do.
        if (m_capacity != 0)
            m_writer->StartThread();
        Fork::Enrol(EForkRank::Loggers, this, &SMemoryLoggerFork::Follow);
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

CFileMemoryLogger::SStack* CFileMemoryLogger::GetStacks(SBuffer const& buffer) const
{
    return reinterpret_cast<SStack*>(buffer.records + m_capacity);
}

inline void CFileMemoryLogger::Record(u64 event, void const* address, u64 size)
{
    if (m_writer->IsCaller())
        return;
    if (m_capacity == 0)
        RecordUnbuffered(event, address, size);
    else
        RecordBuffered(event, address, size);
}

namespace {

/// Nothing but the addresses in use is copied, and a null behind them.
inline void CopyStack(void** frames, void* const* stack, u64 frameCount)
{
    std::memcpy(frames, stack, frameCount * sizeof *stack);
    if (frameCount < Debug::MaxFrames)
        frames[frameCount] = nullptr;
}

} // namespace

/// What of a record is known under the lock only.
inline void CFileMemoryLogger::Fill(SRecord& record) const
{
    record.heapSize = MemoryLog::GetHeapSize();
    record.timestamp = m_writer->GetTimestamp();
}

/// The lock is recursive: a write that allocates comes back here on the same thread, and its event is dropped.
void CFileMemoryLogger::RecordUnbuffered(u64 event, void const* address, u64 size)
{
    TScopedLock<CRecursiveSpinLock> const lock(m_lock);
    if (m_writer->IsWritingNow())
        return;
    SRecord record;
    SStack stack;
    void* captured[Debug::MaxFrames];
    CopyStack(stack.frames, captured, Debug::Backtrace(captured, &record.stackHash));
    record.address = reinterpret_cast<u64>(address);
    record.size = size;
    record.event = event;
    Fill(record);
    m_writer->WriteNow(record, stack);
}

/// The stack is captured before the lock is taken: a capture that allocates comes back here, and finds room or waits
/// for it without holding anything. Under the lock there is a copy, no more; a stack that is in the file already is not
/// even copied.
void CFileMemoryLogger::RecordBuffered(u64 event, void const* address, u64 size)
{
    void* stack[Debug::MaxFrames];
    u32 stackHash = 0;
    u64 const frameCount = Debug::Backtrace(stack, &stackHash);
    bool const isStackKnown = m_writer->HasStack(stackHash);

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
    Fill(record);
    if (!isStackKnown) [[unlikely]]
        CopyStack(GetStacks(*buffer)[count].frames, stack, frameCount);
    buffer->count.store(count + 1, std::memory_order_relaxed);
    bool const isBellWanted = m_writer->GetBell().IsWanted();
    m_lock.Release();
    if (isBellWanted) [[unlikely]]
        m_writer->GetBell().Ring();
}

} // namespace Velmor
