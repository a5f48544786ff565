#include "platform/Platform_EventLog.h"

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <atomic>
#include <cstring>

namespace Velmor {

/// What a system logger holds: the system's handle and the number of the next event. The counter may drift when several
/// threads log at once; it only tells neighbouring events apart.
struct CSystemLogger::SEventLog {
    void* handle;
    std::atomic<u32> counter{0};

    void Write(Platform::EEventType type, char const* text);
};

namespace {

constexpr char const* Source = "Orbisk";

/// How many bytes of a UTF-8 text that has more than `most` the next event takes: no code point is torn.
u64 GetPieceSize(char const* text, u64 most)
{
    constexpr u64 LongestTail = 3; // of a code point's bytes
    for (u64 tail = 0; tail <= LongestTail; ++tail)
        if ((static_cast<u8>(text[most - tail]) & 0xC0) != 0x80)
            return most - tail;
    return most; // no UTF-8: where it is cut is all the same
}

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

void CSystemLogger::SEventLog::Write(Platform::EEventType type, char const* text)
{
    u32 const count = counter.load(std::memory_order_relaxed);
    Platform::WriteEvent(handle, type, (count & 0xFFFF) | IdentifierBase, text);
    counter.store(count + 1, std::memory_order_relaxed);
}

void CSystemLogger::Write(Log::EMessage::Type type, u64, CString const& message)
{
    CMutableString const text = message.ToUTF8();
    Platform::EEventType const eventType = EventTypes[type <= Log::EMessage::Error ? type : Log::EMessage::Error];
    char const* next = text.IsEmpty() ? "" : static_cast<char const*>(text.GetData());
    u64 left = std::strlen(next);
    u64 const most = Platform::GetLongestEventText();
    TVector<char, 1> piece;
    while (left > most) {
        u64 const size = GetPieceSize(next, most);
        piece.Resize(size + 1);
        std::memcpy(piece.GetData(), next, size);
        piece[size] = '\0';
        m_eventLog->Write(eventType, piece.GetData());
        next += size;
        left -= size;
    }
    m_eventLog->Write(eventType, next);
}

} // namespace Velmor
