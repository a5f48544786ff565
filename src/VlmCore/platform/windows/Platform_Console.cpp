#include "../Platform_Console.h"

#include <windows.h>

#include <shellapi.h>

#include <cstdio>
#include <memory>
#include <string>

namespace Velmor::Platform {

// ---- command line ----

void VisitArguments(VisitArgument visit, void* context)
{
    int count = 0;
    std::unique_ptr<LPWSTR, decltype(&::LocalFree)> const arguments(CommandLineToArgvW(GetCommandLineW(), &count),
                                                                    &::LocalFree);
    std::string argument;
    for (int index = 0; arguments != nullptr && index < count; ++index) {
        // Converted by the system: the library's own conversion has another form for characters beyond U+FFFF.
        wchar_t const* const text = arguments.get()[index];
        int const size = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
        argument.resize(size > 0 ? static_cast<std::size_t>(size) : 1);
        ::WideCharToMultiByte(CP_UTF8, 0, text, -1, argument.data(), size, nullptr, nullptr);
        visit(context, argument.c_str());
    }
}

// ---- standard streams ----

bool IsTerminal(EStandardStream stream)
{
    HANDLE const handle = GetStdHandle(stream == EStandardStream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) != 0;
}

void WriteStandardOutput(char const* bytes, u64 size)
{
    std::fwrite(bytes, 1, size, stdout);
    std::fflush(stdout);
}

} // namespace Velmor::Platform
