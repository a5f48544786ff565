#include "../Platform_EventLog.h"

#include <cstring>
#include <syslog.h>

namespace Velmor::Platform {

// Event sources

namespace {

/// syslog keeps one connection per process, so every open source is the same.
int g_source;

} // namespace

void* OpenEventSource(char const* source)
{
    // The system keeps the pointer, for the host's own messages as well: the name has to outlive this library.
    static char const* const name = ::strdup(source);
    ::openlog(name, LOG_PID, LOG_USER);
    return &g_source;
}

// The connection may be the host's as well: it stays.
void CloseEventSource(void*) {}

// Events

namespace {

[[nodiscard]] int GetPriority(EEventType type)
{
    switch (type) {
    case EEventType::Error:
        return LOG_ERR;
    case EEventType::Warning:
        return LOG_WARNING;
    case EEventType::Information:
        break;
    }
    return LOG_INFO;
}

} // namespace

// A message is one datagram, which is lost when it is larger than a socket's buffer (some 200 KB); services cut it much
// earlier, widespread ones at 8,192 bytes with what precedes the text.
u64 GetLongestEventText()
{
    return 8000;
}

bool WriteEvent(void* handle, EEventType type, u32, char const* text)
{
    if (handle == nullptr)
        return false;
    ::syslog(GetPriority(type), "%s", text);
    return true;
}

} // namespace Velmor::Platform
