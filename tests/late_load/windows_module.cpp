#include "Module.h"

#include <cstdio>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace LateLoad {

void* Open(char const* fileName)
{
    HMODULE const module = ::LoadLibraryA(fileName);
    if (module == nullptr)
        static_cast<void>(std::fprintf(stderr, "system error %lu\n", ::GetLastError()));
    return module;
}

void* FindFunction(void* module, char const* name)
{
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(module), name));
}

void Close(void* module)
{
    ::FreeLibrary(static_cast<HMODULE>(module));
}

} // namespace LateLoad
