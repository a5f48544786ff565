/// \file
/// Seam: the process's command line and its standard streams.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// Receives one argument: terminated text, UTF-8 as the system writes it. Valid during the call only.
using VisitArgument = void (*)(void* context, char const* text);

/// Calls `visit` for every argument of the command line, the program's name first, in order. Exceptions of `visit`
/// pass.
void VisitArguments(VisitArgument visit, void* context);

/// The standard streams that a terminal may stand behind.
enum class EStandardStream : u32 { Output, Error };

/// True when a person sees the stream as it is written.
bool IsTerminal(EStandardStream stream);

/// Writes bytes to standard output, whole and behind what the C runtime still holds for it. What the output does not
/// take is lost; one that cannot take anything now and does not wait by itself is waited for, a tenth of a second, and
/// then not again until it took something. Throws nothing, ends nothing.
void WriteStandardOutput(char const* bytes, u64 size);

} // namespace Velmor::Platform
