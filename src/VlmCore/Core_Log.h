/// \file
/// What the log front end shares with its reports and loggers.
#pragma once

#include <vlmcore/logging.h>

namespace Velmor::Log {

/// The level names, indexed by EMessage::Type, followed by the opening and the end of the memory event log's files.
/// One table for both: hosts that look at it expect the framing texts behind the names.
inline constexpr char const* Texts[6] = {"Debug", "Info", "Warning", "Error", "{ \"Data\": [\n", "]}\n"};

inline constexpr char const* const& JsonOpening = Texts[4];
inline constexpr char const* const& JsonTrailer = Texts[5];

/// Name of a level as it appears in a line. A value outside the enumeration reads as "Error".
[[nodiscard]] constexpr char const* GetLevelName(EMessage::Type type)
{
    return Texts[type <= EMessage::Error ? type : EMessage::Error];
}

/// System::GetTimeMs as whole milliseconds: what every message and memory event carries.
[[nodiscard]] u64 GetTimestamp();

[[nodiscard]] bool HasLogger();

/// The installed logger; without one it throws CException. Callers ask HasLogger first: the exception is a guard.
[[nodiscard]] ILogger& GetLogger();

} // namespace Velmor::Log
