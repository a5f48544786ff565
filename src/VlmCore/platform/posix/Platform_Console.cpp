#include "../Platform_Console.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

namespace Velmor::Platform {

// ---- command line ----

// The kernel keeps the arguments one behind the other, each with its terminator. A library has no other way to them.
void VisitArguments(VisitArgument visit, void* context)
{
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(std::fopen("/proc/self/cmdline", "rbe"), &std::fclose);
    if (file == nullptr)
        return;
    std::string argument;
    for (int byte = std::fgetc(file.get()); byte != EOF; byte = std::fgetc(file.get())) {
        if (byte != 0) {
            argument.push_back(static_cast<char>(byte));
            continue;
        }
        visit(context, argument.c_str());
        argument.clear();
    }
}

// ---- standard streams ----

bool IsTerminal(EStandardStream stream)
{
    return isatty(stream == EStandardStream::Output ? STDOUT_FILENO : STDERR_FILENO) == 1;
}

} // namespace Velmor::Platform
