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

} // namespace Velmor::Platform
