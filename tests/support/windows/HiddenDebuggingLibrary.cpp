#include "../HiddenDebuggingLibrary.h"

#include <cstring>
#include <string>
#include <windows.h>

namespace TestSupport {

namespace {

/// Where Wine looks which libraries a program is to have.
std::string GetOverridesKey()
{
    char path[MAX_PATH] = {};
    ::GetModuleFileNameA(nullptr, path, sizeof path - 1);
    char const* const separator = std::strrchr(path, '\\');
    return std::string("Software\\Wine\\AppDefaults\\") + (separator != nullptr ? separator + 1 : path) +
           "\\DllOverrides";
}

constexpr char Library[] = "dbghelp";

} // namespace

CHiddenDebuggingLibrary::CHiddenDebuggingLibrary()
{
    ::RegSetKeyValueA(HKEY_CURRENT_USER, GetOverridesKey().c_str(), Library, REG_SZ, "", 1);
}

CHiddenDebuggingLibrary::~CHiddenDebuggingLibrary()
{
    ::RegDeleteKeyValueA(HKEY_CURRENT_USER, GetOverridesKey().c_str(), Library);
}

bool CHiddenDebuggingLibrary::IsPossible()
{
    return ::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
}

} // namespace TestSupport
