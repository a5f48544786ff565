#include "Core_DrainPolicy.h"
#include "Core_Fork.h"
#include "Core_LogLine.h"

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/system.h>
#include <vlmcore/threads.h>

#include <algorithm>
#include <cstring>

namespace Velmor {

/// The thread that empties the buffers of a file logger.
class CLogWriter : public IThread {
public:
    explicit CLogWriter(CFileLogger& owner) : m_owner(&owner) {}

    /// Swaps the buffers and writes out the one that was current. False when there was nothing in it.
    bool Drain();
    /// Ends the thread.
    void Finish();
    /// What producers look at for whether to wake it.
    [[nodiscard]] CWriterBell& GetBell() { return m_bell; }
    /// For the one producer that is wanted to.
    void Wake() noexcept;
    /// In a copy of the process, where its thread is not: the next line starts another.
    void StartOver();

protected:
    void Execute() override;

private:
    [[nodiscard]] CFileLogger::SBuffer& GetCurrentBuffer() const;

    CFileLogger* m_owner;
    CWriterBell m_bell;
    CDrainPolicy m_policy;
    bool m_isThreadGone = false; ///< in a copy of the process; changed by the producer that is wanted
};

/// A file logger in a copy of the process. What waited in its buffers is the original's to write; nobody else is left
/// who could hold its lock.
struct SFileLoggerFork {
    static void Follow(void* object, EFork moment)
    {
        if (moment != EFork::InCopy)
            return;
        CFileLogger& logger = *static_cast<CFileLogger*>(object);
        logger.m_fileThread.store(Impl::NoOwner, std::memory_order_relaxed);
        for (CFileLogger::SBuffer& buffer : logger.m_buffers)
            buffer.used.store(0, std::memory_order_relaxed);
        if (logger.m_writer != nullptr)
            logger.m_writer->StartOver();
        logger.m_lock.TryRelease();
    }
};

namespace {

/// Opens the file of a logger; null when it cannot be had. General memory, so that a logger that outlives the heap at
/// process exit can still write out its lines.
[[nodiscard]] TResourcePtr<IFile> OpenLogFile(CString const& path)
{
    try {
        auto const mode = EFileOpen::Read | EFileOpen::Write | EFileOpen::CreateAlways;
        return TResourcePtr<IFile>(Memory::New<CNativeFile>(EHeap::General, path, mode));
    }
    catch (CFileException const&) {
        return nullptr;
    }
}

/// Copies `count` bytes of a line from `offset` on. What lies behind the line's end reads as zero.
void CopyPadded(u8* target, u8 const* line, u64 lineSize, u64 offset, u64 count)
{
    u64 const present = std::min(count, lineSize - offset);
    std::memcpy(target, line + offset, present);
    std::memset(target + present, 0, count - present);
}

void ReportLoss(u64 lost)
{
    if (lost > 0)
        Debug::Print("File logger: the file did not take %llu bytes.\n", static_cast<unsigned long long>(lost));
}

void ReportDropped()
{
    Debug::Print("File logger: a line that the file itself logged is dropped.\n");
}

} // namespace

// ---- the logger ----

CFileLogger::CFileLogger(CString const& path, u64 bufferSize) : CFileLogger(OpenLogFile(path), bufferSize)
{
    m_isOwnFile = static_cast<bool>(m_file);
}

CFileLogger::CFileLogger(TResourcePtr<IFile> const& file, u64 bufferSize) : m_file(file), m_bufferSize(bufferSize)
{
    // The documented layout. The lock is one word, the counts and the index are plain numbers to everybody but threads.
    static_assert(sizeof(CFileLogger) == 80 && sizeof(SBuffer) == 16 && sizeof(CSpinLock) == 4);
    if (bufferSize != 0)
        StartWriter();
    Fork::Enrol(EForkRank::Loggers, this, &SFileLoggerFork::Follow);
}

CFileLogger::~CFileLogger()
{
    Fork::Withdraw(this);
    if (m_writer != nullptr) {
        m_writer->Finish();
        // What came in after the thread's last look.
        while (m_writer->Drain())
            continue;
        Memory::Delete(m_writer);
        for (SBuffer& buffer : m_buffers)
            Memory::FreeQuietly(buffer.data);
    }
    // Without a heap the handle does not touch its object. This one is still there, in general memory, and is to be
    // closed.
    if (m_isOwnFile && !Memory::IsInitialized())
        m_file->~IFile();
}

void CFileLogger::StartWriter()
{
    try {
        for (SBuffer& buffer : m_buffers) {
            buffer.data = static_cast<u8*>(Memory::Malloc(m_bufferSize, EHeap::General));
            if (buffer.data == nullptr)
                throw CBadAllocation();
        }
        m_writer = Memory::New<CLogWriter>(EHeap::General, *this);
        m_writer->RunLooped();
    }
    catch (...) {
        Memory::Delete(m_writer);
        for (SBuffer& buffer : m_buffers)
            Memory::FreeQuietly(buffer.data);
        throw;
    }
}

void CFileLogger::Write(Log::EMessage::Type type, u64 timestamp, CString const& message)
{
    CLogLine const line(type, timestamp, message);
    if (m_bufferSize != 0) {
        WriteBuffered(line.GetData(), line.GetSizeByte());
        return;
    }
    if (!m_file)
        return;
    if (IsCalledByFile()) { // and holds the lock
        ReportDropped();
        return;
    }
    m_lock.Acquire();
    u64 const lost = WriteToFile(line.GetData(), line.GetSizeByte());
    m_lock.Release();
    ReportLoss(lost);
}

void CFileLogger::WriteBuffered(u8 const* line, u64 lineSize)
{
    u64 copied = 0;
    bool isBellWanted = false;
    auto const release = [&] {
        m_lock.Release();
        if (isBellWanted)
            m_writer->Wake();
    };
    m_lock.Acquire();
    if (IsCalledByFile()) [[unlikely]] { // asked here, where the logger's words are at hand
        m_lock.Release();
        ReportDropped();
        return;
    }
    for (;;) {
        SBuffer& buffer = m_buffers[m_index.load(std::memory_order_relaxed)];
        u64 const used = buffer.used.load(std::memory_order_relaxed);
        // Kept: the size of the whole line, not of what is left of it, so a line that goes on in the next buffer is
        // followed by padding.
        u64 const count = std::min(m_bufferSize - used, lineSize);
        CopyPadded(buffer.data + used, line, lineSize, copied, count);
        buffer.used.store(used + count, std::memory_order_relaxed);
        copied += count;
        isBellWanted = m_writer->GetBell().IsWanted();
        if (copied >= lineSize)
            break;
        release();
        if (Platform::HasEndedOtherThreads())
            return; // the writer, too: the rest of the line is lost
        Thread::Reschedule();
        m_lock.Acquire();
    }
    release();
}

/// Offers the bytes until the file has taken all of them, takes none, or throws. Returns how many are lost.
u64 CFileLogger::WriteToFile(u8 const* data, u64 size) noexcept
{
    u64 written = 0;
    m_fileThread.store(Thread::GetId(), std::memory_order_relaxed);
    try {
        while (written < size) {
            u64 const taken = m_file->Write(data + written, size - written);
            if (taken == 0)
                break;
            written += std::min(taken, size - written);
        }
    }
    catch (...) {
        // Whatever a file throws, the lines behind these bytes still have their chance.
    }
    m_fileThread.store(Impl::NoOwner, std::memory_order_relaxed);
    return size - written;
}

/// Whether this thread is within the file's Write: a thread that is finds its own mark, no other finds one of its own.
bool CFileLogger::IsCalledByFile() const
{
    u32 const fileThread = m_fileThread.load(std::memory_order_relaxed);
    return fileThread != Impl::NoOwner && fileThread == Thread::GetId();
}

// ---- its writer ----

void CLogWriter::Execute()
{
    auto const getUsed = [this] { return GetCurrentBuffer().used.load(std::memory_order_relaxed); };
    EDrain const decision = m_policy.Decide(getUsed(), m_owner->m_bufferSize, &System::GetTimeMs);
    if (decision == EDrain::Now)
        Drain();
    else if (decision == EDrain::Idle) {
        m_bell.Sleep(m_owner->m_lock, [&] { return getUsed() == 0; });
        Drain(); // the first line after a rest does not wait for company
    }
}

/// Where no thread can be had, the producer does its work.
void CLogWriter::Wake() noexcept
{
    if (!m_isThreadGone) [[likely]] {
        m_bell.Ring();
        return;
    }
    // Before the thread wants a producer in its turn.
    m_isThreadGone = false;
    try {
        RunLooped();
    }
    catch (...) {
        m_isThreadGone = true;
        Drain();
        m_bell.Want(m_owner->m_lock);
    }
}

void CLogWriter::StartOver()
{
    Fork::ForgetThread(*this);
    m_isThreadGone = true;
    m_bell.StartOver();
}

void CLogWriter::Finish()
{
    m_bell.Close(m_owner->m_lock);
    Join();
}

CFileLogger::SBuffer& CLogWriter::GetCurrentBuffer() const
{
    // No lock needed to look: only this thread changes the index.
    return m_owner->m_buffers[m_owner->m_index.load(std::memory_order_relaxed)];
}

/// The lock is held for the swap only: the buffer that was current is this thread's until the next swap, which cannot
/// come before it is empty, so producers go on during the file's write.
bool CLogWriter::Drain()
{
    CFileLogger& owner = *m_owner;
    CFileLogger::SBuffer& buffer = GetCurrentBuffer();
    if (buffer.used.load(std::memory_order_relaxed) == 0)
        return false;

    owner.m_lock.Acquire();
    owner.m_index.store((owner.m_index.load(std::memory_order_relaxed) - 1) & 1, std::memory_order_relaxed);
    u64 const used = buffer.used.load(std::memory_order_relaxed);
    owner.m_lock.Release();

    if (owner.m_file)
        ReportLoss(owner.WriteToFile(buffer.data, used));
    else if (used < owner.m_bufferSize)
        buffer.data[used] = 0;
    buffer.used.store(0, std::memory_order_relaxed);
    return true;
}

} // namespace Velmor
