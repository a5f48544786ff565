/// \file
/// The process-wide log, its loggers, and the memory event log.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/files.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {

class ILogger;

namespace Log {

namespace EMessage {
enum Type : u32 { Debug = 0, Info = 1, Warning = 2, Error = 3 };
} // namespace EMessage

VLM_API void Initialize(ILogger* logger);
[[nodiscard]] VLM_API ILogger* Release();

VLM_API void Debug(CString const& message);
VLM_API void Info(CString const& message);
VLM_API void Warning(CString const& message);
VLM_API void Error(CString const& message);

VLM_API void DebugF(char const* format, ...) VLM_PRINTF(1, 2);
VLM_API void InfoF(char const* format, ...) VLM_PRINTF(1, 2);
VLM_API void WarningF(char const* format, ...) VLM_PRINTF(1, 2);
VLM_API void ErrorF(char const* format, ...) VLM_PRINTF(1, 2);

VLM_API void Callstack(unsigned char skip);
VLM_API void SystemInfo();

} // namespace Log

class VLM_API ILogger {
public:
    virtual ~ILogger();
    virtual void Write(Log::EMessage::Type type, u64 timestamp, CString const& message) = 0;
};

class VLM_API IMemoryLogger {
public:
    virtual ~IMemoryLogger();
    virtual void OnAllocate(void const* address, u64 size) = 0;
    virtual void OnFree(void const* address) = 0;
    virtual void OnRetain(void const* address) = 0;
    virtual void OnRelease(void const* address) = 0;
};

} // namespace Velmor
