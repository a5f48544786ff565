#include "../Platform_EventLog.h"

#include <windows.h>

namespace Velmor::Platform {

// Event sources

void* OpenEventSource(char const* source)
{
    return ::OpenEventLogA(nullptr, source);
}

void CloseEventSource(void* handle)
{
    if (handle != nullptr)
        ::CloseEventLog(handle);
}

// Events

static_assert(static_cast<WORD>(EEventType::Error) == EVENTLOG_ERROR_TYPE);
static_assert(static_cast<WORD>(EEventType::Warning) == EVENTLOG_WARNING_TYPE);
static_assert(static_cast<WORD>(EEventType::Information) == EVENTLOG_INFORMATION_TYPE);

// The documented limit of a string of an event, in characters: a byte makes one at most, in whatever encoding.
u64 GetLongestEventText()
{
    return 31839;
}

bool WriteEvent(void* handle, EEventType type, u32 identifier, char const* text)
{
    if (handle == nullptr)
        return false;
    return ::ReportEventA(handle, static_cast<WORD>(type), 0, identifier, nullptr, 1, 0, &text, nullptr) != FALSE;
}

} // namespace Velmor::Platform
