#include "Core_LogLine.h"

#include "platform/Platform_Console.h"

#include <vlmcore/logging.h>

namespace Velmor {

CConsoleLogger::CConsoleLogger() = default;
CConsoleLogger::~CConsoleLogger() = default;

// One call per line: the C runtime keeps lines of several threads apart.
void CConsoleLogger::Write(Log::EMessage::Type type, u64 timestamp, CString const& message)
{
    CLogLine const line(type, timestamp, message);
    Platform::WriteStandardOutput(reinterpret_cast<char const*>(line.GetData()), line.GetSizeByte());
}

} // namespace Velmor
