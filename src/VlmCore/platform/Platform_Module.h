/// \file
/// Seam: loadable modules. Names are UTF-16 with backslashes, terminated, as everywhere in the seam; a name without a
/// separator is searched for where the system's loader looks. Any thread. Failing is normal and reported by null and a
/// text: a loader has more to say than an error number can carry.
#pragma once

#include "Platform_SystemError.h"

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// What a module's file name ends in: ".dll" or ".so".
extern char16_t const ModuleSuffix[];

/// Terminated UTF-8; empty when the system has nothing to say.
using ModuleErrorText = char[SystemErrorTextCapacity];

/// Loads a module or takes one more hold of it. Writes `errorText` only when it returns null.
[[nodiscard]] void* LoadModule(char16_t const* name, ModuleErrorText& errorText);

/// The handle of a loaded module, without a hold; null when it is not loaded.
[[nodiscard]] void* FindModule(char16_t const* name);

/// Gives one hold back; `module` is not null.
void UnloadModule(void* module);

/// The address of an exported function; null, and `errorText` written, without one or for a null module.
[[nodiscard]] void* FindModuleFunction(void* module, char const* name, ModuleErrorText& errorText);

} // namespace Velmor::Platform
