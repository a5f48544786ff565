#include "../Platform_Debug.h"

#include "Posix_PipeSignal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace Velmor::Platform {

namespace {

void WriteAll(int descriptor, char const* bytes, u64 size)
{
    CNoPipeSignal const noSignal;
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

// The user

namespace {

/// One line of standard input, of which only the first `size` bytes are kept; false at its end.
bool ReadLine(char* line, u64 size)
{
    u64 length = 0;
    for (;;) {
        char c = 0;
        ssize_t const count = ::read(STDIN_FILENO, &c, 1);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        if (c == '\n')
            break;
        if (length + 1 < size)
            line[length++] = c;
    }
    line[length] = '\0';
    return true;
}

} // namespace

EAnswer AskUser(char const* text, char const* caption)
{
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDERR_FILENO) == 0)
        return EAnswer::None;
    WriteDebugOutput("\n");
    WriteDebugOutput(caption);
    WriteDebugOutput("\n\n");
    WriteDebugOutput(text);
    for (;;) {
        WriteDebugOutput("\n(a)bort, (r)etry, (i)gnore, ignore (f)or good? ");
        char line[16];
        if (!ReadLine(line, sizeof line))
            return EAnswer::None;
        switch (line[std::strspn(line, " \t")]) {
        case 'a':
        case 'A':
            return EAnswer::Abort;
        case 'r':
        case 'R':
            return EAnswer::Retry;
        case 'i':
        case 'I':
            return EAnswer::Ignore;
        case 'f':
        case 'F':
            return EAnswer::IgnoreForGood;
        default:
            break; // ask again
        }
    }
}

bool IsSwitchOn(char const* name)
{
    char variable[64] = "VELMOR";
    u64 length = std::strlen(variable);
    for (; *name != '\0' && length + 2 < sizeof variable; ++name) {
        bool const isCapital = *name >= 'A' && *name <= 'Z';
        if (isCapital)
            variable[length++] = '_';
        variable[length++] = static_cast<char>(isCapital ? *name : *name - 'a' + 'A');
    }
    variable[length] = '\0';
    char const* const value = std::getenv(variable);
    return value != nullptr && value[0] != '\0' && std::strcmp(value, "0") != 0;
}

// The process

void GetExecutablePath(char* path, u64 size)
{
    ssize_t const length = ::readlink("/proc/self/exe", path, size - 1);
    path[length > 0 ? length : 0] = '\0';
}

SCalendarTime GetUniversalTime()
{
    // The civil calendar from the count of days, by arithmetic alone: the runtime's own conversion takes locks.
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    i64 const days = now.tv_sec / 86400;
    u32 const seconds = static_cast<u32>(now.tv_sec % 86400);
    i64 const shifted = days + 719468; // since 1 March of the year 0; years then end with the leap day
    i64 const era = shifted / 146097;
    i64 const dayOfEra = shifted % 146097;
    i64 const yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    i64 const dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    i64 const monthFromMarch = (5 * dayOfYear + 2) / 153;
    i64 const month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    SCalendarTime time{};
    time.year = static_cast<u32>(yearOfEra + era * 400 + (month <= 2 ? 1 : 0));
    time.month = static_cast<u32>(month);
    time.day = static_cast<u32>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1);
    time.hour = seconds / 3600;
    time.minute = seconds / 60 % 60;
    time.second = seconds % 60;
    return time;
}

} // namespace Velmor::Platform
