#include "Module.h"

#include <cstdio>
#include <string>

#include <dlfcn.h>

namespace LateLoad {

void* Open(char const* fileName)
{
    void* const module = ::dlopen((std::string("./") + fileName).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr)
        static_cast<void>(std::fprintf(stderr, "%s\n", ::dlerror()));
    return module;
}

void* FindFunction(void* module, char const* name)
{
    return ::dlsym(module, name);
}

void Close(void* module)
{
    ::dlclose(module);
}

} // namespace LateLoad
