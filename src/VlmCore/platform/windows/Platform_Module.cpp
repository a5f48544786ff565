#include "../Platform_Module.h"

#include "Windows_Path.h"

#ifndef WIN32_LEAN_AND_MEAN
#  define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

namespace Velmor::Platform {

// Names

char16_t const ModuleSuffix[] = u".dll";

// Modules

void* LoadModule(char16_t const* name, ModuleErrorText& errorText)
{
    HMODULE const module = ::LoadLibraryExW(AsWide(name), nullptr, 0);
    if (module == nullptr)
        GetSystemErrorText(::GetLastError(), errorText);
    return module;
}

void* FindModule(char16_t const* name)
{
    return ::GetModuleHandleW(AsWide(name));
}

void UnloadModule(void* module)
{
    ::FreeLibrary(static_cast<HMODULE>(module));
}

// Functions

void* FindModuleFunction(void* module, char const* name, ModuleErrorText& errorText)
{
    // The system would take null for the executable.
    FARPROC const function = module != nullptr ? ::GetProcAddress(static_cast<HMODULE>(module), name) : nullptr;
    if (function == nullptr)
        GetSystemErrorText(module != nullptr ? ::GetLastError() : ERROR_INVALID_HANDLE, errorText);
    return reinterpret_cast<void*>(function);
}

} // namespace Velmor::Platform
