#include "../Platform_Debug.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace Velmor::Platform {

namespace {

void WriteAll(int descriptor, char const* bytes, u64 size)
{
    while (size > 0) {
        ssize_t const written = ::write(descriptor, bytes, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        bytes += written;
        size -= static_cast<u64>(written);
    }
}

} // namespace

// Debugger

bool IsDebuggerAttached()
{
    // The kernel names the tracer in one line of the status file, "TracerPid:\t<id>", 0 for none. The line lies within
    // the first kilobyte; no allocation and no stream, so that crash code may ask too.
    int const file = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    char text[2048];
    u64 size = 0;
    while (size < sizeof text - 1) {
        ssize_t const count = ::read(file, text + size, sizeof text - 1 - size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        size += static_cast<u64>(count);
    }
    ::close(file);
    text[size] = '\0';
    char const* const tracer = std::strstr(text, "\nTracerPid:\t");
    return tracer != nullptr && tracer[12] >= '1' && tracer[12] <= '9';
}

void WriteDebugOutput(char const* text)
{
    WriteAll(STDERR_FILENO, text, std::strlen(text));
}

// Process end

void TerminateCurrentProcess(u32 exitCode)
{
    ::_exit(static_cast<int>(exitCode));
}

void RaiseInvalidParameter(char const* what)
{
    static constexpr char prefix[] = "invalid parameter: ";
    WriteAll(STDERR_FILENO, prefix, sizeof prefix - 1);
    WriteAll(STDERR_FILENO, what, std::strlen(what));
    WriteAll(STDERR_FILENO, "\n", 1);
    std::abort();
}

} // namespace Velmor::Platform
