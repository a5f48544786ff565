#include "../Platform_Module.h"

#include "Posix_Path.h"

#include <cstring>

#include <dlfcn.h>

namespace Velmor::Platform {

namespace {

/// The loader keeps its last failure per thread and forgets it once asked.
void TakeLoaderText(ModuleErrorText& errorText)
{
    char const* const text = ::dlerror();
    u64 const length = text != nullptr ? std::strlen(text) : 0;
    u64 const copied = length < sizeof errorText ? length : sizeof errorText - 1;
    if (copied != 0)
        std::memcpy(errorText, text, copied);
    errorText[copied] = '\0';
}

} // namespace

// Names

char16_t const ModuleSuffix[] = u".so";

// Modules

void* LoadModule(char16_t const* name, ModuleErrorText& errorText)
{
    CSystemPath const path(name);
    if (path.GetError() != ESystemError::None) {
        GetSystemErrorText(path.GetError(), errorText);
        return nullptr;
    }
    // Everything is bound at once, so that a module that cannot run fails here and not in the middle of its work.
    void* const module = ::dlopen(path.Get(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr)
        TakeLoaderText(errorText);
    return module;
}

void* FindModule(char16_t const* name)
{
    CSystemPath const path(name);
    if (path.GetError() != ESystemError::None)
        return nullptr;
    void* const module = ::dlopen(path.Get(), RTLD_NOW | RTLD_NOLOAD);
    if (module != nullptr)
        ::dlclose(module); // the hold that came with the handle; whoever loaded it has another
    return module;
}

void UnloadModule(void* module)
{
    ::dlclose(module);
}

// Functions

void* FindModuleFunction(void* module, char const* name, ModuleErrorText& errorText)
{
    // The loader would take null for all modules.
    if (module == nullptr) {
        GetSystemErrorText(ESystemError::InvalidHandle, errorText);
        return nullptr;
    }
    ::dlerror();
    void* const function = ::dlsym(module, name);
    if (function == nullptr)
        TakeLoaderText(errorText);
    return function;
}

} // namespace Velmor::Platform
