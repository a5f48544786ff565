/// \file
/// The system's log of events.
///
/// Windows: the event log. Linux: syslog, which has no identifiers and knows one source per process, that of the last
/// OpenEventSource. A system without a running service is normal: events then vanish, and nothing here says so for
/// sure.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// How serious an event is.
enum class EEventType : u16 { Error = 1, Warning = 2, Information = 4 };

/// Opens the log for events of `source`, which must stay valid until the process ends. Null when there is none.
[[nodiscard]] void* OpenEventSource(char const* source);

/// Closes what OpenEventSource returned; nothing for null.
void CloseEventSource(void* handle);

/// Most bytes of a text, the terminator not counted, that an event surely keeps whole. A longer one may be refused, cut
/// or lost.
[[nodiscard]] u64 GetLongestEventText();

/// Writes one event of category 0 with one text, which the system reads in its own 8-bit encoding on Windows and as it
/// stands on Linux. False when the system refuses it. A null handle is refused.
bool WriteEvent(void* handle, EEventType type, u32 identifier, char const* text);

} // namespace Velmor::Platform
