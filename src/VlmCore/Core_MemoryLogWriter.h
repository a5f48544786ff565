/// \file
/// The thread that turns recorded memory events into JSON.
#pragma once

#include "Core_DrainPolicy.h"
#include "Core_EventText.h"
#include "Core_JSONFile.h"
#include "Core_MillisecondClock.h"
#include "Core_StackFilter.h"
#include "Core_StallWatch.h"

#include <vlmcore/debug.h>
#include <vlmcore/impl/Core_Allocator.h>
#include <vlmcore/logging.h>
#include <vlmcore/threads.h>
#include <vlmcore/types.h>

#include <atomic>
#include <functional>
#include <set>

namespace Velmor {

/// Drains the buffers of a memory logger, or writes single events for one without buffers. What it allocates itself is
/// not recorded.
class CJSONMemoryLogWriter : public IThread {
public:
    /// Writes the openings of both files. Throws CBadAllocation.
    explicit CJSONMemoryLogWriter(CFileMemoryLogger& owner);

    /// Starts the thread and waits until it knows itself: before that it must not meet its own events.
    void StartThread();
    [[nodiscard]] bool IsCaller() const { return m_self.load(std::memory_order_relaxed) == Thread::GetId(); }

    /// Ends the thread.
    void Finish();
    /// What recording threads wake it with.
    [[nodiscard]] CWriterBell& GetBell() { return m_bell; }

    /// Writes what the current buffer holds. False when there was nothing. Never throws; by the writer's thread, or
    /// when that has ended.
    bool Drain() noexcept;

    /// Writes one event on the calling thread. Under the logger's lock.
    void WriteNow(CFileMemoryLogger::SRecord const& record, CFileMemoryLogger::SStack const& stack) noexcept;
    /// True while WriteNow is at work.
    [[nodiscard]] bool IsWritingNow() const { return m_isWritingNow; }

    /// True when the stack of this hash is in the file: an event need not bring it. False may be wrong. Any thread.
    [[nodiscard]] bool HasStack(u32 hash) const { return m_filter.Knows(hash); }

    /// The time that an event carries. Under the logger's lock.
    [[nodiscard]] u64 GetTimestamp();

    /// A thread's wait for room in the buffers.
    struct SWait {
        CBackoff backoff{CBackoff::ManyYields};
        CStallWatch watch;
    };
    /// Waits for the writer a little. False when it has stood still for long: the caller should give its event up.
    [[nodiscard]] bool WaitForRoom(SWait& wait);
    /// In a copy of the process: every event is dropped from now on, and the writer not to be destroyed.
    void GiveUp();
    [[nodiscard]] bool IsGivenUp() const { return m_isGivenUp; }
    void CountDropped() { m_dropped.fetch_add(1, std::memory_order_relaxed); }

protected:
    void Execute() override;

private:
    using SRecord = CFileMemoryLogger::SRecord;
    using SStack = CFileMemoryLogger::SStack;

    [[nodiscard]] CFileMemoryLogger::SBuffer& GetCurrentBuffer() const;
    void WriteRecords(SRecord const* records, SStack const* stacks, u64 count) noexcept;
    void AddEvent(SRecord const& record) noexcept;
    void AddStack(u32 hash, SStack const& stack) noexcept;
    void AppendStack(CJSONText& text, u32 hash, SStack const& stack);
    void ReportDropped();

    // What recording threads look at comes first, and far from what the writer changes with every record.
    CFileMemoryLogger* m_owner;
    std::atomic<u32> m_self{NoThreadId};
    bool m_isWritingNow = false;
    bool m_isGivenUp = false;
    CWriterBell m_bell;
    CMillisecondClock m_clock; ///< under the owner's lock
    CStackFilter m_filter;     ///< of m_writtenStacks
    Debug::SCallstackLine m_frames[Debug::MaxFrames];
    /// In general memory: a logger may outlive the pools at process exit, with events still to write.
    std::set<u32, std::less<>, TAllocator<u32, EHeap::General>> m_writtenStacks;
    CJSONFile m_stacks;
    CJSONFile m_events;
    CEventText m_eventText;
    CDrainPolicy m_policy;
    std::atomic<u64> m_dropped{0};
    std::atomic<u64> m_progress{0};              ///< records that the writer is done with
    std::atomic<u64> m_stalledProgress{~u64{0}}; ///< the progress at which a thread lost its patience
};

} // namespace Velmor
