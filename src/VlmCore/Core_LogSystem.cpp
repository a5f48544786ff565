#include "platform/Platform_EventLog.h"

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <atomic>

namespace Velmor {

/// What a system logger holds: the system's handle and the number of the next event. The counter may drift when several
/// threads log at once; it only tells neighbouring events apart.
struct CSystemLogger::SEventLog {
    void* handle;
    std::atomic<u32> counter{0};
};

namespace {

constexpr char const* Source = "Orbisk";

/// Informational severity and the customer bit: the upper half of every identifier.
constexpr u32 IdentifierBase = 0x60000000;

constexpr Platform::EEventType EventTypes[4] = {Platform::EEventType::Information, Platform::EEventType::Information,
                                                Platform::EEventType::Warning, Platform::EEventType::Error};

} // namespace

CSystemLogger::CSystemLogger() : m_eventLog(Memory::New<SEventLog>(EHeap::General, Platform::OpenEventSource(Source)))
{
    // The log to be is out of order, so the debugger is told.
    if (m_eventLog->handle == nullptr)
        Debug::Print("System logger: the system's event log cannot be opened, messages are lost.\n");
}

CSystemLogger::~CSystemLogger()
{
    Platform::CloseEventSource(m_eventLog->handle);
    Memory::Delete(m_eventLog);
}

void CSystemLogger::Write(Log::EMessage::Type type, u64, CString const& message)
{
    CMutableString const text = message.ToUTF8();
    char const* const bytes = text.IsEmpty() ? "" : static_cast<char const*>(text.GetData());
    u32 const counter = m_eventLog->counter.load(std::memory_order_relaxed);
    Platform::WriteEvent(m_eventLog->handle, EventTypes[type <= Log::EMessage::Error ? type : Log::EMessage::Error],
                         (counter & 0xFFFF) | IdentifierBase, bytes);
    m_eventLog->counter.store(counter + 1, std::memory_order_relaxed);
}

} // namespace Velmor
