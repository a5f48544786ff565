#include "Core_LogLine.h"

#include <vlmcore/logging.h>

#include <cstdio>

namespace Velmor {

CConsoleLogger::CConsoleLogger() = default;
CConsoleLogger::~CConsoleLogger() = default;

// One call per line: the C runtime keeps lines of several threads apart.
void CConsoleLogger::Write(Log::EMessage::Type type, u64 timestamp, CString const& message)
{
    CLogLine const line(type, timestamp, message);
    std::fwrite(line.GetData(), 1, line.GetSizeByte(), stdout);
    std::fflush(stdout);
}

} // namespace Velmor
