#include "Core_Log.h"
#include "Core_Printf.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/logging.h>
#include <vlmcore/system.h>

#include <cstdarg>

namespace Velmor {

ILogger::~ILogger() = default;

namespace Log {
namespace {

/// Bytes that a formatted message may have, its terminator included.
constexpr u64 MessageSize = 2048;

ILogger* g_logger = nullptr;

void Write(EMessage::Type type, CString const& message)
{
    if (!HasLogger())
        return;
    u64 const timestamp = GetTimestamp();
    GetLogger().Write(type, timestamp, message);
}

void WriteFormatted(EMessage::Type type, char const* format, va_list arguments)
{
    if (!HasLogger())
        return;
    char text[MessageSize];
    FormatStrict(text, sizeof text, format, arguments);
    Write(type, CString(text));
}

} // namespace

bool HasLogger()
{
    return g_logger != nullptr;
}

ILogger& GetLogger()
{
    if (!HasLogger())
        throw CException("src/VlmCore/Core_Log.cpp(78): CLogSingleton has no instance.");
    return *g_logger;
}

u64 GetTimestamp()
{
    return static_cast<u64>(System::GetTimeMs());
}

void Initialize(ILogger* logger)
{
    g_logger = logger;
    Info("Log start.");
}

ILogger* Release()
{
    if (!HasLogger())
        return nullptr;
    Info("Log end.");
    ILogger* const logger = g_logger;
    g_logger = nullptr;
    return logger;
}

void Debug(CString const& message)
{
    Write(EMessage::Debug, message);
}

void Info(CString const& message)
{
    Write(EMessage::Info, message);
}

void Warning(CString const& message)
{
    Write(EMessage::Warning, message);
}

void Error(CString const& message)
{
    Write(EMessage::Error, message);
}

void DebugF(char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    WriteFormatted(EMessage::Debug, format, arguments);
    va_end(arguments);
}

void InfoF(char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    WriteFormatted(EMessage::Info, format, arguments);
    va_end(arguments);
}

void WarningF(char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    WriteFormatted(EMessage::Warning, format, arguments);
    va_end(arguments);
}

void ErrorF(char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    WriteFormatted(EMessage::Error, format, arguments);
    va_end(arguments);
}

} // namespace Log
} // namespace Velmor
