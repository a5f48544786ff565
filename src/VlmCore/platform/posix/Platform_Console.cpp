#include "../Platform_Console.h"

#include "Posix_PipeSignal.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
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

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<bool> g_isOutputStuck{false};

/// False when the output has not become ready until `end`, or did not the last time.
bool WaitForOutput(int descriptor, Clock::time_point end)
{
    using std::chrono::milliseconds;
    pollfd output{descriptor, POLLOUT, 0};
    int ready = -1;
    do {
        auto const left = std::chrono::ceil<milliseconds>(end - Clock::now());
        ready = ::poll(&output, 1, g_isOutputStuck ? 0 : static_cast<int>(std::max(left, milliseconds(0)).count()));
    } while (ready == -1 && errno == EINTR);
    g_isOutputStuck = ready <= 0;
    return ready > 0;
}

void WriteDescriptor(int descriptor, char const* bytes, u64 size)
{
    Clock::time_point const end = Clock::now() + std::chrono::milliseconds(100);
    while (size > 0) {
        ssize_t const count = ::write(descriptor, bytes, size);
        if (count > 0) {
            bytes += count;
            size -= static_cast<u64>(count);
        }
        else if (count == 0 || (errno != EINTR && (errno != EAGAIN || !WaitForOutput(descriptor, end))))
            return;
    }
}

} // namespace

// The runtime's own writing gives up when a signal interrupts it.
void WriteStandardOutput(char const* bytes, u64 size)
{
    CNoPipeSignal const noSignal;
    ::flockfile(stdout);
    int const descriptor = ::fileno(stdout);
    if (descriptor == -1) // a stream without a file behind it
        std::fwrite(bytes, 1, size, stdout);
    std::fflush(stdout);
    if (descriptor != -1)
        WriteDescriptor(descriptor, bytes, size);
    ::funlockfile(stdout);
}

} // namespace Velmor::Platform
