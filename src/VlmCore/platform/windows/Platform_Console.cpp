#include "../Platform_Console.h"

#include <windows.h>

#include <shellapi.h>

#include <memory>

namespace Velmor::Platform {

// ---- command line ----

void VisitArguments(VisitArgument visit, void* context)
{
    int count = 0;
    std::unique_ptr<LPWSTR, decltype(&::LocalFree)> const arguments(CommandLineToArgvW(GetCommandLineW(), &count),
                                                                    &::LocalFree);
    for (int index = 0; arguments != nullptr && index < count; ++index)
        visit(context, arguments.get()[index], 2);
}

// ---- standard streams ----

bool IsTerminal(EStandardStream stream)
{
    HANDLE const handle = GetStdHandle(stream == EStandardStream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) != 0;
}

} // namespace Velmor::Platform
